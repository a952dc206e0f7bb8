#pragma once

#include "core/AudioBuffer.h"

#include <QObject>

#include <functional>

// Where captured audio comes from: the sound server's default microphone, or a file standing in
// for one. A source delivers float blocks of 1024 frames (a file's last block may be shorter) to the
// handler given to start(), one after another on its own audio thread.
class CaptureSource : public QObject {
    Q_OBJECT
public:
    // Called on the audio thread for each block; must not block. The block is valid only during the
    // call (its storage is reused for the next one).
    using BlockHandler = std::function<void(const AudioBuffer& block)>;

    static constexpr int blockFrames = 1024;

    using QObject::QObject;
    ~CaptureSource() override = default;

    // The format the next start() will deliver; for a microphone this also picks the device that
    // start() opens. Throws CollaboratorError (no microphone, unreadable file, a hung sound server).
    virtual AudioFormat inputFormat() = 0;

    // Starts delivering blocks to `handler`. Throws CollaboratorError; nothing is delivered then.
    virtual void start(BlockHandler handler) = 0;

    // Stops delivering; when it returns, the handler is not running and will not be called again.
    // Never fails; harmless when stopped.
    virtual void stop() = 0;

Q_SIGNALS:
    // The input changed under a running capture (device plugged or unplugged, the default input
    // switched, the device failed), so the format and device should be chosen again.
    void configurationChanged();
};
