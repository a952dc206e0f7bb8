#include "audio/MicrophoneSource.h"

#include "audio/DefaultSourceWatcher.h"
#include "core/Collaborators.h"
#include "core/Handoff.h"
#include "storage/Diagnostics.h"

#include <QAudioDevice>
#include <QAudioSource>
#include <QCoreApplication>
#include <QMediaDevices>
#include <QPointer>
#include <QThread>

#include <algorithm>
#include <exception>
#include <future>
#include <optional>
#include <thread>

struct MicrophoneSource::Capture {
    std::function<void()> notify;  // reports a change to the GUI thread; any thread
    std::unique_ptr<QMediaDevices> devices;
    QAudioDevice device;
    QAudioFormat format;
    std::unique_ptr<QAudioSource> audio;
    QIODevice* io = nullptr;
    AudioBuffer block;
    std::size_t filledBytes = 0;
    BlockHandler handler;
    // Blocks go to the handler only while the capture the GUI thread last asked for is the one
    // running: it moves `session` on at every start and stop, so a start that it gave up waiting
    // for, or one being stopped, delivers nothing.
    std::atomic<int> session{0};
    int runningSession = -1;  // audio thread

    bool current() const { return session.load(std::memory_order_acquire) == runningSession; }

    // Moves what the device has into 1024-frame blocks and hands each full one over; while the
    // capture ends, to the handler of the capture that ends.
    void drain(bool ending = false)
    {
        if (!io)
            return;
        const std::size_t blockBytes = block.samples.size() * sizeof(float);
        auto* bytes = reinterpret_cast<char*>(block.samples.data());
        for (;;) {
            const qint64 got = io->read(bytes + filledBytes, static_cast<qint64>(blockBytes - filledBytes));
            if (got <= 0)
                return;
            filledBytes += static_cast<std::size_t>(got);
            if (filledBytes == blockBytes) {
                filledBytes = 0;
                if (handler && (ending || current()))
                    handler(block);
            }
        }
    }

    // Hands over what the device still holds, the last block shorter, as the capture stops: people
    // let go of the key as they finish the last word, and its end is in there.
    void drainTail()
    {
        drain(true);
        const std::size_t frameBytes = sizeof(float) * static_cast<std::size_t>(block.format.channelCount);
        const std::size_t whole = filledBytes / frameBytes * frameBytes;
        filledBytes = 0;
        if (whole == 0 || !handler)
            return;
        const auto end = block.samples.begin() + static_cast<std::ptrdiff_t>(whole / sizeof(float));
        handler(AudioBuffer{block.format, std::vector<float>(block.samples.begin(), end)});
    }
};

namespace {

struct Choice {
    AudioFormat format;
    QString id;
    QString description;
};

// Frames in 20 ms of the device's sound.
int fragmentFrames(const AudioFormat& format) { return std::max(1, static_cast<int>(format.sampleRate / 50)); }

}  // namespace

MicrophoneSource::MicrophoneSource(int timeoutMs, QObject* parent)
    : CaptureSource(parent),
      timeoutMs_(timeoutMs),
      thread_(new QThread),
      worker_(new QObject),
      capture_(std::make_shared<Capture>()),
      watcher_(std::make_shared<DefaultSourceWatcher>()),
      busy_(std::make_shared<std::atomic<bool>>(false))
{
    const QPointer<MicrophoneSource> self(this);
    capture_->notify = [self] {
        if (QCoreApplication* app = QCoreApplication::instance())
            Handoff::post(app, [self] {
                if (self)
                    self->noteChange();
            });
    };
    watcher_->onChanged = capture_->notify;
    changeTimer_.setSingleShot(true);
    changeTimer_.setInterval(150);
    connect(&changeTimer_, &QTimer::timeout, this, [this] { Q_EMIT configurationChanged(); });
    thread_->setObjectName(QStringLiteral("audio"));
    worker_->moveToThread(thread_);
    thread_->start();
}

MicrophoneSource::~MicrophoneSource()
{
    stop();
    // The audio thread undoes its part and then ends its own loop: a quit from here can end that
    // loop before it has run what was queued, and the capture and the worker were never freed.
    Handoff::post(worker_, [capture = capture_, worker = worker_] {
        capture->devices.reset();
        worker->deleteLater();  // deferred deletions still run as the thread ends
        QThread::currentThread()->quit();
    });
    if (thread_->wait(timeoutMs_)) {
        Handoff::received(QThread::currentThread());  // what the audio thread did last
        delete thread_;
    } else {
        // A request to the sound server still hangs on it; destroying a running thread would end
        // the program, so it is left behind.
        Diagnostics::log(QStringLiteral("audio: the microphone thread is still waiting for the sound server; leaving it"));
    }
}

template <typename Work>
auto MicrophoneSource::onAudioThread(Work work, const QString& what)
{
    using Result = decltype(work());
    if (busy_->load())
        throw CollaboratorError(QStringLiteral("The sound server is not answering (an earlier request to it has not returned)"));
    auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> future = promise->get_future();
    busy_->store(true);
    Handoff::post(
        worker_,
        [promise, work = std::move(work), busy = busy_]() mutable {
            std::optional<Result> result;
            std::exception_ptr failure;
            try {
                result.emplace(work());
            } catch (...) {
                failure = std::current_exception();
            }
            // Free before the waiting thread wakes, so that its next request is not refused.
            busy->store(false);
            if (failure)
                promise->set_exception(failure);
            else
                promise->set_value(std::move(*result));
        });
    if (future.wait_for(std::chrono::milliseconds(timeoutMs_)) != std::future_status::ready)
        throw CollaboratorError(QStringLiteral("The sound server did not answer within %1 ms while %2").arg(timeoutMs_).arg(what));
    return future.get();
}

AudioFormat MicrophoneSource::inputFormat()
{
    const int serverTimeout = std::max(1, timeoutMs_ / 2);
    const Choice choice = onAudioThread(
        [capture = capture_, watcher = watcher_, serverTimeout] {
            // The server is asked first: Qt Multimedia connects to it once per process and never
            // again when that first attempt fails, so it must not look before a server is there.
            const std::optional<QString> defaultName = watcher->defaultSourceName(serverTimeout);
            if (!defaultName)
                throw CollaboratorError(QStringLiteral("No microphone: no sound server (PulseAudio or PipeWire) answers"));
            if (!capture->devices) {
                capture->devices = std::make_unique<QMediaDevices>();
                QObject::connect(capture->devices.get(), &QMediaDevices::audioInputsChanged, capture->devices.get(),
                                 [notify = capture->notify] { notify(); });
            }
            const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
            if (inputs.isEmpty())
                throw CollaboratorError(QStringLiteral("No microphone: the sound server offers no audio input"));
            QAudioDevice device;
            for (const QAudioDevice& input : inputs)
                if (QString::fromUtf8(input.id()) == *defaultName)
                    device = input;
            if (device.isNull()) {
                device = QMediaDevices::defaultAudioInput();
                if (device.isNull())
                    device = inputs.first();
                Diagnostics::log(QStringLiteral("audio: default source %1 is not among the inputs; using %2")
                                     .arg(*defaultName, QString::fromUtf8(device.id())));
            }
            QAudioFormat format = device.preferredFormat();
            format.setSampleFormat(QAudioFormat::Float);
            if (format.sampleRate() <= 0)
                format.setSampleRate(48000);
            if (format.channelCount() <= 0)
                format.setChannelCount(1);
            capture->device = device;
            capture->format = format;
            return Choice{AudioFormat{static_cast<double>(format.sampleRate()), format.channelCount()},
                          QString::fromUtf8(device.id()), device.description()};
        },
        QStringLiteral("looking for the default input"));
    if (choice.id != deviceId_)
        Diagnostics::log(QStringLiteral("audio: microphone \"%1\" (%2)").arg(choice.description, choice.id));
    deviceId_ = choice.id;
    deviceDescription_ = choice.description;
    return choice.format;
}

void MicrophoneSource::start(BlockHandler handler)
{
    stop();
    const int session = ++capture_->session;
    try {
        startOnAudioThread(session, std::move(handler));
    } catch (...) {
        ++capture_->session;  // a start that completes after all must not deliver
        throw;
    }
    started_ = true;
}

void MicrophoneSource::startOnAudioThread(int session, BlockHandler handler)
{
    onAudioThread(
        [capture = capture_, session, handler = std::move(handler)] {
            Capture& c = *capture;
            if (c.device.isNull())
                throw CollaboratorError(QStringLiteral("No microphone has been chosen"));
            c.audio = std::make_unique<QAudioSource>(c.device, c.format);
            const AudioFormat format{static_cast<double>(c.format.sampleRate()), c.format.channelCount()};
            c.block = AudioBuffer{format, std::vector<float>(static_cast<std::size_t>(blockFrames) * format.channelCount)};
            // The sound server passes the microphone's sound on in pieces of this size: at most this
            // much of what was said before the key came up is still on its way when it does.
            c.audio->setBufferSize(static_cast<qsizetype>(fragmentFrames(format) * format.channelCount * sizeof(float)));
            c.io = c.audio->start();
            if (!c.io || c.audio->error() != QAudio::NoError) {
                const int error = c.audio->error();
                c.io = nullptr;
                c.audio.reset();
                throw CollaboratorError(QStringLiteral("Cannot open the microphone \"%1\" (Qt audio error %2)")
                                            .arg(c.device.description())
                                            .arg(error));
            }
            c.filledBytes = 0;
            c.handler = handler;
            c.runningSession = session;
            QObject::connect(c.io, &QIODevice::readyRead, c.audio.get(), [&c] { c.drain(); });
            QObject::connect(c.audio.get(), &QAudioSource::stateChanged, c.audio.get(), [&c](QAudio::State state) {
                // The device went away or failed under a running capture: choose again.
                if (state == QAudio::StoppedState && c.audio && c.audio->error() != QAudio::NoError && c.current())
                    c.notify();
            });
            return true;
        },
        QStringLiteral("opening the microphone"));
}

void MicrophoneSource::stop()
{
    if (!started_)
        return;
    started_ = false;
    const int ending = capture_->session.load();
    ++capture_->session;
    // The tail goes to the handler only while stop() waits for it: should the sound server keep the
    // audio thread past the wait, the tail is given up rather than delivered after stop() returned.
    auto tail = std::make_shared<std::atomic<int>>(0);  // 0 open, 1 being delivered, 2 done or given up
    try {
        onAudioThread(
            [capture = capture_, ending, tail] {
                Capture& c = *capture;
                if (int open = 0; c.runningSession == ending && tail->compare_exchange_strong(open, 1)) {
                    c.drainTail();
                    tail->store(2);
                }
                if (c.audio)
                    c.audio->stop();
                c.io = nullptr;
                c.audio.reset();
                c.handler = nullptr;
                c.runningSession = -1;
                return true;
            },
            QStringLiteral("closing the microphone"));
    } catch (const CollaboratorError& error) {
        if (int open = 0; !tail->compare_exchange_strong(open, 2))
            while (tail->load() != 2)
                std::this_thread::yield();  // the tail is being handed over this moment
        Diagnostics::log(QStringLiteral("audio: ") + error.localizedDescription());
    }
}

void MicrophoneSource::noteChange()
{
    if (!changeTimer_.isActive())
        changeTimer_.start();
}
