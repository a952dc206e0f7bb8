#pragma once

#include "audio/CaptureSource.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

// A capture source that plays an audio file (WAV, FLAC, Ogg or any format libsndfile reads) as if a
// microphone heard it: each start() delivers the file from its beginning, in 1024-frame float blocks
// with the file's own rate and channel count, on a thread of its own. Paced in real time, block n
// arrives no earlier than (n + 1) block durations after start(), like a microphone's; unpaced,
// blocks follow each other as fast as the handler takes them (tests, benchmarks, transcribing a file).
class FileSource final : public CaptureSource {
    Q_OBJECT
public:
    enum class Pacing { realTime, asFastAsPossible };

    explicit FileSource(QString path, Pacing pacing = Pacing::realTime, QObject* parent = nullptr);
    ~FileSource() override;

    const QString& path() const { return path_; }
    Pacing pacing() const { return pacing_; }

    AudioFormat inputFormat() override;  // throws CollaboratorError for a missing or unreadable file
    void start(BlockHandler handler) override;
    void stop() override;

Q_SIGNALS:
    // The whole file has been delivered, or reading it failed part way (logged). GUI thread.
    void finished();

private:
    void run(void* file, AudioFormat format, BlockHandler handler);

    QString path_;
    Pacing pacing_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopRequested_ = false;  // guarded by mutex_
};
