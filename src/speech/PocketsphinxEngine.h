#pragma once

#include "speech/SpeechEngine.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>
#include <optional>

struct ps_decoder_s;

// CMU pocketsphinx as a streaming engine: partial hypotheses are the volatile results, the
// hypothesis at the end of each speech segment (the decoder's voice-activity end) and at finalize
// are the final ones. It decodes 16 kHz mono.
class PocketsphinxEngine final : public SpeechEngine {
public:
    // The files of one model: an acoustic model folder, a language model and a dictionary.
    struct Model {
        QString acousticModel;
        QString languageModel;
        QString dictionary;

        // The model kept in `folder` (acoustic model in the folder itself or a subfolder), if whole.
        // `locale` picks among several language models, e.g. en-us.lm.bin for en-US.
        static std::optional<Model> inFolder(const QString& folder, const QString& locale = QString());
    };

    struct Settings {
        // The decoder's second (flat-lexicon) and third (lattice best path) passes run when a segment
        // ends. Measured on synthesised dictation (bench/bench_decoder_settings) they cost most of
        // the time to end a segment and do not improve the words, so they are off.
        bool fwdflat = false;
        bool bestpath = false;
        // Silence (in 10 ms frames) after which the decoder's voice-activity detector ends a segment.
        int vadPostspeech = 50;
        // Further decoder arguments, as name/value pairs ("-beam", "1e-40").
        QStringList extra;
    };

    static AudioFormat format() { return AudioFormat{16000, 1}; }

    // Loads the model; throws CollaboratorError when the decoder cannot be made from it.
    static std::shared_ptr<PocketsphinxEngine> load(const Model& model, const Settings& settings);
    static std::shared_ptr<PocketsphinxEngine> load(const Model& model) { return load(model, Settings()); }
    // The decoder's command-line arguments for a model and settings (also used by the benchmarks).
    static QStringList decoderArguments(const Model& model, const Settings& settings);

    ~PocketsphinxEngine() override;

    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return format(); }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override;

private:
    friend class PocketsphinxAnalyzer;
    PocketsphinxEngine() = default;

    ps_decoder_s* decoder_ = nullptr;
    std::mutex decoderInUse_;  // one session at a time decodes
    std::weak_ptr<PocketsphinxEngine> self_;
};
