#pragma once

#include "audio/CaptureSource.h"

#include <QString>
#include <QTimer>

#include <atomic>
#include <memory>

class DefaultSourceWatcher;
class QThread;

// The sound server's default input through Qt Multimedia, captured as float blocks of 1024 frames
// at the device's preferred rate and channel count.
//
// Qt does not say which input the server treats as its default, so the server is asked and the
// device with that name is chosen; a switch of the default, or an input coming or going, is
// reported as configurationChanged().
//
// Every call into Qt Multimedia and the server runs on the source's own audio thread, and the GUI
// thread waits for it at most `timeoutMs`: a hung sound server turns into a CollaboratorError
// instead of a frozen program. Until the hung request returns, later requests fail at once.
class MicrophoneSource final : public CaptureSource {
    Q_OBJECT
public:
    explicit MicrophoneSource(int timeoutMs = 5000, QObject* parent = nullptr);
    ~MicrophoneSource() override;

    AudioFormat inputFormat() override;  // picks the server's default input; throws CollaboratorError
    void start(BlockHandler handler) override;
    void stop() override;

    // The input chosen by the last inputFormat(): its name on the sound server and its description.
    QString deviceId() const { return deviceId_; }
    QString deviceDescription() const { return deviceDescription_; }

private:
    struct Capture;  // state of the audio thread

    template <typename Work>
    auto onAudioThread(Work work, const QString& what);
    void startOnAudioThread(int session, BlockHandler handler);
    void noteChange();

    int timeoutMs_;
    QThread* thread_;
    QObject* worker_;  // lives on thread_: the context for work sent there
    std::shared_ptr<Capture> capture_;
    std::shared_ptr<DefaultSourceWatcher> watcher_;
    std::shared_ptr<std::atomic<bool>> busy_;  // a request to the audio thread has not returned yet
    bool started_ = false;
    QString deviceId_;
    QString deviceDescription_;
    QTimer changeTimer_;  // folds the burst of signals one change makes into one report
};
