#pragma once

#include "speech/SpeechEngine.h"
#include "speech/SpeechSegmenter.h"

#include <QString>

#include <chrono>
#include <memory>

#include <qcoro/qcorotask.h>

// Transcription by a local server (whisper.cpp's whisper-server, or an OpenAI-compatible one):
// the dictation is cut at pauses and each finished segment is sent while the user still speaks,
// so the key-up leaves one short request. Answers become final results in the order of the
// segments, whatever order they come back in.
//
// A server that is not allowed, does not answer or fails hands the dictation to the fallback
// engine (pocketsphinx) from the first segment not yet answered, with the audio kept for that, so
// no words are lost; answered segments stay.
class ServerSpeechEngine final : public SpeechEngine {
public:
    struct Config {
        QString endpoint;  // a URL ending in /inference (whisper.cpp) or an OpenAI-compatible base URL
        QString model;     // empty: the server's default
        QString language;  // two-letter code, such as "en"
        bool allowRemote = false;
        std::chrono::milliseconds requestTimeout{30000};
        std::chrono::milliseconds availabilityTimeout{2000};
        SpeechSegmenter::Settings segments;

        // The speech server settings, for a dictation in `locale`.
        static Config fromPreferences(const QString& locale);
    };

    // Whether the server answers within the availability timeout, in the cleanup model's terms.
    struct Availability {
        bool available = false;
        QString endpoint;
        QString model;   // what the status line names
        QString reason;  // why not, readable
    };
    static QCoro::Task<Availability> checkAvailability(Config config);

    ServerSpeechEngine(Config config, std::shared_ptr<SpeechEngine> fallback);

    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return AudioFormat{16000, 1}; }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override;

private:
    Config config_;
    std::shared_ptr<SpeechEngine> fallback_;
};
