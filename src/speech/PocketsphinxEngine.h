#pragma once

#include "speech/SpeechEngine.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

struct ps_decoder_s;

// CMU pocketsphinx as a streaming engine: partial hypotheses are the volatile results, the
// hypothesis at the end of each speech segment (the decoder's voice-activity end) and at finalize
// are the final ones. It decodes 16 kHz mono.
//
// The loaded decoder is most of the program's memory (~85 MiB for US English), so it is freed once
// no session has used it for a while and loaded again by the next session's decoding thread. Loading
// takes about 0.2 s while capture already runs into the session's unbounded input, so no speech is
// lost and only an utterance shorter than the load waits for it.
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
        // How the words of an utterance are found, chosen with bench/bench_decoder_settings (word
        // errors, and the time to end an utterance, on the same synthesised dictations).
        //  - lattice: the first pass over the lexicon tree as the audio comes, with wider beams than
        //    pocketsphinx's own, then the best path through the lattice of the words it found. Ending
        //    an utterance takes 5-25 ms whatever its length, and the suite's sentences came out with
        //    7.2 % of their words wrong.
        //  - flat: pocketsphinx's own second pass, over a flat lexicon, through the whole utterance
        //    once it has ended: 20-25 ms for every second of speech, so 200 ms and more after a long
        //    dictation, for 7.4 % wrong. Both decode at about a seventh of real time.
        // The lattice's beams are what makes it as good: with pocketsphinx's own it got 7.7 % wrong.
        enum class Pass { lattice, flat };
        Pass pass = Pass::lattice;
        // Silence (in 10 ms frames) after which the decoder's voice-activity detector ends a segment.
        int vadPostspeech = 30;
        // Quiet audio decoded before a session's first block. The decoder takes its first frames as
        // the room's noise; when those are already speech (someone talking as they press the key),
        // the first word is heard as noise and lost. A tenth of a second was enough on the suite's
        // sentences; this leaves a margin.
        std::chrono::milliseconds leadIn{150};
        // A segment longer than `splitAfter` is ended at the next pause of `splitPause` between
        // phrases, so the second pass over it runs while the user still speaks and the key-up
        // finds only a short last segment to finish. Zero never ends a segment early, and is the
        // default: in bench_dictation_latency ending ~10 s dictations after 2 s at 0.1 s pauses
        // brings the key-up → text time from ~270 ms to 50-70 ms, but the decoder, which starts
        // each segment without the words before it, got about 4 more words in 100 wrong. A tenth of
        // a second is the pause that finds the breaks in running speech (0.15 s found almost none).
        std::chrono::milliseconds splitAfter{0};
        std::chrono::milliseconds splitPause{100};
        // Load only the dictionary entries the language model knows: the same words, less memory.
        bool trimDictionary = true;
        // Further decoder arguments, as name/value pairs ("-beam", "1e-40"); one the pass gives
        // already takes this value instead.
        QStringList extra;
        // How long the decoder stays loaded after it was last used: a burst of dictations shares
        // one load, a program left alone in the tray gives the memory back.
        std::chrono::milliseconds keepLoaded{30000};
    };

    static AudioFormat format() { return AudioFormat{16000, 1}; }

    // Loads the model; throws CollaboratorError when the decoder cannot be made from it.
    static std::shared_ptr<PocketsphinxEngine> load(const Model& model, const Settings& settings);
    static std::shared_ptr<PocketsphinxEngine> load(const Model& model) { return load(model, Settings()); }
    // The decoder's command-line arguments for a model and settings.
    static QStringList decoderArguments(const Model& model, const Settings& settings);
    // The quiet audio a session decodes first (Settings::leadIn), 16 kHz.
    static std::vector<std::int16_t> leadIn(const Settings& settings);
    // A bare decoder for a model and settings (the caller frees it with ps_free), or null.
    static ps_decoder_s* createDecoder(const Model& model, const Settings& settings);

    ~PocketsphinxEngine() override;

    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return format(); }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override;

    // Whether the decoder is in memory now.
    bool isLoaded() const { return loaded_; }

private:
    friend class PocketsphinxAnalyzer;
    PocketsphinxEngine(const Model& model, const Settings& settings);

    // A session's claim on the decoder, loading it if it was freed. Throws CollaboratorError.
    ps_decoder_s* claim(std::unique_lock<std::mutex>& busy);
    void unclaim(std::unique_lock<std::mutex>& busy);
    void keep();  // the keeper thread: frees the decoder once unused for keepLoaded

    const Model model_;
    const Settings settings_;
    ps_decoder_s* decoder_ = nullptr;  // guarded by decoderInUse_
    std::mutex decoderInUse_;          // one session at a time decodes
    std::atomic<bool> loaded_{false};

    std::mutex keeperMutex_;  // guards what follows; taken before decoderInUse_, never after
    std::condition_variable keeperWake_;
    int sessions_ = 0;
    std::chrono::steady_clock::time_point lastUse_;
    bool stopping_ = false;
    std::thread keeper_;

    std::weak_ptr<PocketsphinxEngine> self_;
};
