#pragma once

#include "audio/AudioConverter.h"
#include "audio/CaptureSource.h"
#include "audio/LevelMeter.h"
#include "core/Collaborators.h"

#include <QMetaObject>
#include <QObject>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

// Captures audio while a dictation runs. For every block the capture source delivers it reports a
// smoothed level through onAmplitude, writes a peak line to the diagnostic log every 45 blocks, and
// hands the block on through onBuffer converted to the target format (16 kHz mono unless set).
// When the input changes under it (device plugged in, default input switched) it rebuilds the tap
// and restarts itself.
//
//   AudioEngineController mic(std::make_unique<MicrophoneSource>());
//   AudioEngineController file(std::make_unique<FileSource>(path, FileSource::Pacing::realTime));
//
// start(), stop() and setTargetFormat() belong to the GUI thread; onAmplitude and onBuffer are
// called on the source's audio thread, must not block, and are set while stopped.
class AudioEngineController final : public QObject, public AbstractAudioEngine {
    Q_OBJECT
public:
    static constexpr AudioFormat defaultTargetFormat{16000, 1};

    explicit AudioEngineController(std::unique_ptr<CaptureSource> source, QObject* parent = nullptr);
    ~AudioEngineController() override;

    // Read when capture starts or restarts: a change takes effect at the next start().
    void setTargetFormat(std::optional<AudioFormat> format) override;
    std::optional<AudioFormat> targetFormat() const { return targetFormat_; }

    void start() override;  // throws CollaboratorError; nothing when already running
    void stop() override;   // never fails; nothing when stopped
    // As stop(), but while the latest block is louder than the room, it first takes in what follows,
    // up to a quiet block or trailingLimit of audio: someone who lets go of the key with their last
    // word is still being heard, and the end of that word is on its way from the microphone.
    void stopAfterSpeech() override;
    static constexpr std::chrono::milliseconds trailingLimit{80};

    bool isRunning() const { return running_; }
    CaptureSource& source() const { return *source_; }

private:
    // What one installation of the tap works with until the next: the converter (none for
    // pass-through) and the format it converts to.
    // Whether the speaker was still talking, from the blocks' loudness: the room's is that of the
    // quietest block so far.
    struct Trail {
        std::mutex mutex;  // guards what follows
        std::condition_variable arrived;
        float room = std::numeric_limits<float>::max();
        float latest = 0;
        bool waiting = false;  // stopAfterSpeech() waits for the end of the speech
        double waitedSeconds = 0;  // of audio that came since it began to wait
        bool ended = false;
        bool speech(float rms) const { return rms > std::max(room * 4, 0.002f); }
        void note(float rms, double seconds);
    };
    struct Tap {
        std::unique_ptr<AudioConverter> converter;
        AudioFormat target;
        std::chrono::steady_clock::time_point startedAt;
        bool heard = false;  // audio thread: a block has come since the start
        Trail trail;
    };

    void installTap();
    void startCapture();  // hands the installed tap to the source
    void addConfigObserver();
    void removeConfigObserver();
    void handleConfigChange();
    void process(Tap& tap, const AudioBuffer& block);  // the audio thread's work for one block
    static bool formatsMatch(const AudioFormat& a, const AudioFormat& b);

    std::unique_ptr<CaptureSource> source_;
    bool running_ = false;
    LevelMeter meter_;  // audio thread while running; reset only after the source stopped
    QMetaObject::Connection configObserver_;
    std::optional<AudioFormat> targetFormat_;
    std::shared_ptr<Tap> tap_;  // the installed tap; the source's handler holds it too
};
