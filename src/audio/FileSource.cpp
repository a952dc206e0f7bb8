#include "audio/FileSource.h"

#include "core/Collaborators.h"
#include "core/Handoff.h"
#include "storage/Diagnostics.h"

#include <QFile>

#include <sndfile.h>

#include <chrono>

namespace {

constexpr int minimumRate = 1000;
constexpr int maximumRate = 768000;

// Opens the file for reading, or throws with libsndfile's reason.
SNDFILE* openFile(const QString& path, SF_INFO& info)
{
    info = {};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file)
        throw CollaboratorError(QStringLiteral("Cannot read the audio file \"%1\": %2")
                                    .arg(path, QString::fromUtf8(sf_strerror(nullptr))));
    // A rate far below any recording's would be stretched thousands of times over on its way to
    // the recognizer: a few bytes claiming 1 Hz turn into hours of audio.
    if (info.channels <= 0 || info.samplerate < minimumRate || info.samplerate > maximumRate) {
        sf_close(file);
        throw CollaboratorError(QStringLiteral("The audio file \"%1\" has no usable audio (%2 channels at %3 Hz)")
                                    .arg(path).arg(info.channels).arg(info.samplerate));
    }
    return file;
}

}  // namespace

FileSource::FileSource(QString path, Pacing pacing, QObject* parent)
    : CaptureSource(parent), path_(std::move(path)), pacing_(pacing)
{
}

FileSource::~FileSource()
{
    stop();
}

AudioFormat FileSource::inputFormat()
{
    SF_INFO info;
    sf_close(openFile(path_, info));
    return AudioFormat{static_cast<double>(info.samplerate), info.channels};
}

void FileSource::start(BlockHandler handler)
{
    stop();
    SF_INFO info;
    SNDFILE* file = openFile(path_, info);
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = false;
    }
    const AudioFormat format{static_cast<double>(info.samplerate), info.channels};
    thread_ = std::thread([this, file, format, handler = std::move(handler)] { run(file, format, handler); });
}

void FileSource::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void FileSource::run(void* handle, AudioFormat format, BlockHandler handler)
{
    auto* file = static_cast<SNDFILE*>(handle);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point began = Clock::now();
    const std::size_t blockSamples = static_cast<std::size_t>(blockFrames) * format.channelCount;
    AudioBuffer block{format, std::vector<float>(blockSamples)};
    sf_count_t delivered = 0;  // frames handed over so far
    bool stopped = false;
    for (;;) {
        block.samples.resize(blockSamples);  // within capacity: no allocation
        const sf_count_t got = sf_readf_float(file, block.samples.data(), blockFrames);
        if (got <= 0) {
            if (sf_error(file) != SF_ERR_NO_ERROR)
                Diagnostics::log(QStringLiteral("audio: reading \"%1\" failed: %2")
                                     .arg(path_, QString::fromUtf8(sf_strerror(file))));
            break;
        }
        block.samples.resize(static_cast<std::size_t>(got) * format.channelCount);
        delivered += got;
        std::unique_lock lock(mutex_);
        if (pacing_ == Pacing::realTime) {
            // A microphone hands a block over once all of it has been heard.
            const auto due = began + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(static_cast<double>(delivered) / format.sampleRate));
            wake_.wait_until(lock, due, [this] { return stopRequested_; });
        }
        if (stopRequested_) {
            stopped = true;
            break;
        }
        lock.unlock();
        handler(block);
    }
    sf_close(file);
    if (!stopped)
        Handoff::post(this, [this] { Q_EMIT finished(); });
}
