#include "support/Sound.h"

#include "support/TestSupport.h"

#include "core/Collaborators.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <thread>

namespace AudioTest {

namespace {
// On the calling thread: a server that goes away mid-test fails the write to its pipe instead of
// ending the test with SIGPIPE.
void blockBrokenPipe()
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

// The pipe microphone speaks 48 kHz stereo, as most microphones do. The sound server reads a pipe in
// pieces of PIPE_BUF (4096 bytes) and passes each on whole: at 16 kHz mono a piece was 128 ms, far
// more than the few milliseconds a real microphone keeps back, and the end of what was said reached
// the program late.
constexpr int pipeRate = 48000, pipeChannels = 2, pipeFrameBytes = 2 * pipeChannels;

// 16 kHz mono 16-bit samples as the pipe's frames.
QByteArray toPipe(const QByteArray& pcm16k)
{
    const auto* in = reinterpret_cast<const qint16*>(pcm16k.constData());
    const std::size_t frames = static_cast<std::size_t>(pcm16k.size() / 2);
    std::vector<float> mono(frames), high(frames * 3 + 64);
    for (std::size_t i = 0; i < frames; ++i)
        mono[i] = in[i] / 32768.0f;
    std::size_t made = 0;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    if (soxr_oneshot(16000, pipeRate, 1, mono.data(), frames, nullptr, high.data(), high.size(), &made, &io, nullptr, nullptr))
        return {};
    QByteArray out(static_cast<qsizetype>(made) * pipeFrameBytes, Qt::Uninitialized);
    auto* p = reinterpret_cast<qint16*>(out.data());
    for (std::size_t i = 0; i < made; ++i)
        for (int c = 0; c < pipeChannels; ++c)
            *p++ = static_cast<qint16>(std::lrint(std::clamp(high[i], -1.0f, 1.0f) * 32767.0f));
    return out;
}
}  // namespace

AudioBuffer sine(AudioFormat format, int frames, double frequency, float amplitude, long offset)
{
    AudioBuffer out{format, std::vector<float>(static_cast<std::size_t>(frames) * format.channelCount)};
    for (int i = 0; i < frames; ++i) {
        const double t = static_cast<double>(offset + i) / format.sampleRate;
        const float v = amplitude * static_cast<float>(std::sin(2 * std::numbers::pi * frequency * t));
        for (int c = 0; c < format.channelCount; ++c)
            out.samples[static_cast<std::size_t>(i) * format.channelCount + c] = v;
    }
    return out;
}

AudioBuffer constant(AudioFormat format, int frames, float value)
{
    return AudioBuffer{format, std::vector<float>(static_cast<std::size_t>(frames) * format.channelCount, value)};
}

std::vector<float> channel(const AudioBuffer& buffer, int channel)
{
    std::vector<float> out;
    for (int i = 0; i < buffer.frameCount(); ++i)
        out.push_back(buffer.samples[static_cast<std::size_t>(i) * buffer.format.channelCount + channel]);
    return out;
}

double tonePower(const std::vector<float>& samples, double sampleRate, double frequency, std::size_t from)
{
    if (samples.size() <= from)
        return 0;
    const double w = 2 * std::numbers::pi * frequency / sampleRate;
    const double coeff = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (std::size_t i = from; i < samples.size(); ++i) {
        const double s0 = samples[i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double n = double(samples.size() - from);
    const double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return power / (n * n);
}

void feed(AudioInputStream& input, const std::vector<float>& samples, std::size_t blockSize, AudioFormat format)
{
    for (std::size_t at = 0; at < samples.size(); at += blockSize)
        input.yield(AudioBuffer{format, std::vector<float>(samples.begin() + at, samples.begin() + std::min(samples.size(), at + blockSize))});
}

bool writeWav(const QString& path, const AudioBuffer& audio)
{
    SF_INFO info{};
    info.samplerate = static_cast<int>(audio.format.sampleRate);
    info.channels = audio.format.channelCount;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!file)
        return false;
    const sf_count_t frames = audio.frameCount();
    const bool ok = sf_writef_float(file, audio.samples.data(), frames) == frames;
    sf_close(file);
    return ok;
}

bool forbidSoundServerAutospawn()
{
    const QString config = qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/pulse");
    QDir().mkpath(config);
    QFile conf(config + QStringLiteral("/client.conf"));
    return conf.open(QIODevice::WriteOnly) && conf.write("autospawn = no\n") > 0;
}

QStringList pactl(const QStringList& args)
{
    QProcess p;
    p.start(QStringLiteral("pactl"), args);
    p.waitForFinished(10000);
    if (p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return {};
    return QString::fromUtf8(p.readAllStandardOutput()).split(QLatin1Char('\n'));
}

SoundServer::~SoundServer() { stop(); }

QString SoundServer::start(const QStringList& modules)
{
    if (!forbidSoundServerAutospawn())
        return QStringLiteral("cannot write the sound-server client configuration");
    QStringList args{QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--disallow-exit"),
                     QStringLiteral("-n"), QStringLiteral("--log-level=error"), QStringLiteral("--load=module-native-protocol-unix")};
    for (const QString& module : modules)
        args << QStringLiteral("--load=") + module;
    daemon_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon_.start(QStringLiteral("pulseaudio"), args);
    if (!daemon_.waitForStarted(10000))
        return QStringLiteral("pulseaudio is needed (scripts/setup.sh --test installs it)");
    QDeadlineTimer deadline(15000);
    while (pactl({QStringLiteral("info")}).isEmpty()) {
        if (deadline.hasExpired() || daemon_.state() != QProcess::Running)
            return QStringLiteral("the PulseAudio daemon did not answer");
        QThread::msleep(50);
    }
    return {};
}

void SoundServer::stop() { TestSupport::stop(daemon_); }

PipeMicrophone::PipeMicrophone() : fifo_(sandboxPath(QStringLiteral("mic.fifo"))) {}

PipeMicrophone::~PipeMicrophone() { stop(); }

void PipeMicrophone::stop()
{
    listening_ = false;
    if (feeder_.joinable())
        feeder_.join();
    server_.stop();
}

QString PipeMicrophone::start()
{
    if (QString problem = server_.start(
            {QStringLiteral("module-pipe-source source_name=mic file=%1 format=s16le rate=%2 channels=%3").arg(fifo_).arg(pipeRate).arg(pipeChannels)});
        !problem.isEmpty())
        return problem;
    if (pactl({QStringLiteral("set-default-source"), QStringLiteral("mic")}).isEmpty())
        return QStringLiteral("the pipe source is missing");
    return {};
}

void PipeMicrophone::speak(const QByteArray& speech, bool pace)
{
    if (listening_) {
        say(speech, Clock::now());
        waitUntilSaid();
        return;
    }
    const QByteArray pcm = toPipe(speech);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        blockBrokenPipe();
        const int fd = ::open(fifo_.toLocal8Bit().constData(), O_WRONLY);
        if (fd >= 0) {
            constexpr qsizetype piece = pipeRate * pipeFrameBytes / 10;
            const auto begin = std::chrono::steady_clock::now();
            for (qsizetype at = 0; at < pcm.size(); at += piece) {
                const qsizetype n = std::min(piece, pcm.size() - at);
                if (::write(fd, pcm.constData() + at, static_cast<size_t>(n)) != n)
                    break;
                // Against the start, so the pace does not drift with the time writes take.
                if (pace)
                    std::this_thread::sleep_until(begin + std::chrono::microseconds((at + n) * 100000 / piece));
            }
            ::close(fd);
        }
        done = true;
    });
    TestSupport::waitUntil([&] { return done.load(); }, 120000);
    writer.join();
}

void PipeMicrophone::listen()
{
    if (listening_.exchange(true))
        return;
    feeder_ = std::thread([this] { feed(); });
}

void PipeMicrophone::say(const QByteArray& speech, Clock::time_point at)
{
    const QByteArray pcm = toPipe(speech);
    std::lock_guard lock(mutex_);
    pending_ = pcm;
    due_ = at;
    said_.reset();
}

std::optional<PipeMicrophone::Clock::time_point> PipeMicrophone::waitUntilSaid(int timeoutMs)
{
    std::optional<Clock::time_point> said;
    TestSupport::waitUntil(
        [&] {
            std::lock_guard lock(mutex_);
            said = said_;
            return said.has_value();
        },
        timeoutMs);
    return said;
}

void PipeMicrophone::feed()
{
    blockBrokenPipe();
    const int fd = ::open(fifo_.toLocal8Bit().constData(), O_WRONLY);
    if (fd < 0)
        return;
    // The server stops reading the pipe while nobody records. A microphone's sound is lost then,
    // not kept for later: the pipe holds only a moment of it and what does not fit is dropped.
    ::fcntl(fd, F_SETPIPE_SZ, 4096);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    constexpr int step = pipeRate / 100 * pipeChannels;  // samples of 10 ms
    std::uint32_t noise = 12345;
    const Clock::time_point begin = Clock::now();
    for (long n = 1; listening_; ++n) {
        qint16 chunk[step];
        int spoken = 0;
        {
            std::lock_guard lock(mutex_);
            if (!pending_.isEmpty() && Clock::now() >= due_) {
                spoken = static_cast<int>(std::min<qsizetype>(step, pending_.size() / 2));
                std::memcpy(chunk, pending_.constData(), static_cast<size_t>(spoken) * 2);
                pending_.remove(0, spoken * 2);
                if (pending_.isEmpty())
                    said_ = Clock::now();
            }
        }
        // The hiss is under the speech too: synthesised speech has stretches of digital silence,
        // which no microphone gives.
        for (int i = 0; i < step; ++i)
            chunk[i] = static_cast<qint16>(std::clamp((i < spoken ? chunk[i] : 0) + hiss(noise), -32768, 32767));
        if (::write(fd, chunk, sizeof chunk) < 0 && errno != EAGAIN)
            break;
        std::this_thread::sleep_until(begin + std::chrono::milliseconds(10 * n));
    }
    ::close(fd);
}

QByteArray pcm16(const std::vector<float>& samples)
{
    QByteArray out(static_cast<qsizetype>(samples.size() * 2), Qt::Uninitialized);
    auto* p = reinterpret_cast<qint16*>(out.data());
    for (float s : samples)
        *p++ = static_cast<qint16>(std::clamp(s, -1.0f, 1.0f) * 32767.0f);
    return out;
}

QString sandboxPath(const QString& name)
{
    const QString root = qEnvironmentVariable("TOLVANE_TEST_SANDBOX", QDir::tempPath());
    QDir().mkpath(root + QStringLiteral("/audio"));
    return root + QStringLiteral("/audio/") + name;
}

}  // namespace AudioTest
