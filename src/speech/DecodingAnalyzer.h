#pragma once

#include "speech/SpeechEngine.h"

#include <QString>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class AnalyzerInputStream;
class SpeechResultStream;

// The thread, finalize and cancel plumbing shared by engines: one decoding thread per session pulls
// buffers from the input stream and hands them to the engine's hooks, which report results through
// emitResult(). A streaming engine decodes in decode(); an engine that re-decodes a window of recent
// audio appends in decode() and decodes in caughtUp(), which runs whenever the input queue is empty,
// so it re-decodes as often as it can keep up and never falls behind by more than one decode.
class DecodingAnalyzer : public SpeechAnalyzer {
public:
    // `accepted`: the one input format the engine takes, if it insists on one.
    DecodingAnalyzer(std::shared_ptr<SpeechResultStream> results, std::optional<AudioFormat> accepted);
    ~DecodingAnalyzer() override;

    void prepareToAnalyze(const AudioFormat& format) override;
    void start(std::shared_ptr<AnalyzerInputStream> input) override;
    void finalizeAndFinishThroughEndOfInput() override;
    void cancelAndFinishNow() override;

protected:
    // Hooks, all on the decoding thread. Any may throw CollaboratorError: the stream then fails.
    virtual void beginDecoding() {}
    virtual void decode(const AudioBuffer& buffer) = 0;
    virtual void caughtUp() {}
    // The input has ended and a finalize was asked for: deliver the last final results.
    virtual void finalizeDecoding() = 0;
    // Always last, after finalizing, cancelling or a failure: release the decoder.
    virtual void endDecoding() {}

    void emitResult(const QString& text, bool isFinal);
    // The buffer as 16 kHz mono 16-bit samples, channels mixed; false (logged once per session) for
    // audio at another rate, which the engines cannot take.
    bool monoPcm16(const AudioBuffer& buffer, std::vector<std::int16_t>& out);
    bool cancelRequested() const;
    // Cancels and joins the decoding thread. Subclasses call it first thing in their destructor, as
    // the thread runs their hooks.
    void stopDecoding();

private:
    void run();

    std::shared_ptr<SpeechResultStream> results_;
    std::optional<AudioFormat> accepted_;
    std::shared_ptr<AnalyzerInputStream> input_;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool finalizeRequested_ = false;
    bool cancelRequested_ = false;
    bool done_ = false;
    QString error_;
    bool warned_ = false;  // decoding thread only
};
