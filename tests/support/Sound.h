#pragma once

// Signals made in code, WAV files, and sound servers of the test's own.

#include "core/AudioBuffer.h"

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class AudioInputStream;

namespace AudioTest {

// `frames` frames of a sine of `frequency` Hz and peak `amplitude` on every channel, starting at
// frame `offset` of the same endless tone (so consecutive blocks join without a jump).
AudioBuffer sine(AudioFormat format, int frames, double frequency, float amplitude, long offset = 0);

// The same block with every sample set to `value`.
AudioBuffer constant(AudioFormat format, int frames, float value);

// Channel `channel` of interleaved samples.
std::vector<float> channel(const AudioBuffer& buffer, int channel);

// The next sample of a microphone's own hiss (about -75 dBFS) from the generator's `state`. No real
// microphone gives digital silence, and the decoder's noise tracking and voice-activity detection
// behave differently on it. Inline, so the benchmarks share it without linking the harness.
inline qint16 hiss(std::uint32_t& state)
{
    state = state * 1664525u + 1013904223u;
    return static_cast<qint16>(static_cast<int>(state >> 28) - 8);
}

// Power of `frequency` in the samples by the Goertzel algorithm, normalised so that a full-scale sine
// of that frequency gives about 0.25 * amplitude^2.
double tonePower(const std::vector<float>& samples, double sampleRate, double frequency, std::size_t from = 0);

// Hands `samples` to `input` in blocks of `blockSize` samples marked as `format`, as capture does.
void feed(AudioInputStream& input, const std::vector<float>& samples, std::size_t blockSize, AudioFormat format = {16000, 1});

// Writes interleaved float samples as a 16-bit PCM WAV file; false when it cannot.
bool writeWav(const QString& path, const AudioBuffer& audio);

// Keeps sound-server clients of this test from starting a daemon of their own (libpulse's
// autospawn), through the client configuration in the test's XDG_CONFIG_HOME; false when it cannot.
bool forbidSoundServerAutospawn();

// Runs pactl against the sandbox's sound server; its output lines, or nothing when it fails.
QStringList pactl(const QStringList& args);

// A PulseAudio daemon of the test's own, in its sandbox, loading `modules` (pulseaudio --load
// arguments) besides its socket, with autospawn forbidden. Stopped when destroyed.
class SoundServer {
public:
    ~SoundServer();
    // What went wrong, or an empty string once the daemon answers.
    QString start(const QStringList& modules);
    void stop();

private:
    QProcess daemon_;
};

// A sound server whose default source "mic" is a pipe read as 48 kHz stereo s16le, as a microphone
// would be (while nothing is written, it delivers nothing). It is given speech as 16 kHz mono 16-bit
// samples.
class PipeMicrophone {
public:
    using Clock = std::chrono::steady_clock;

    PipeMicrophone();
    ~PipeMicrophone();
    QString start();
    void stop();
    // Writes 16-bit samples into the pipe on a thread of its own; with `pace`, at the speed a
    // person speaks, in 100 ms pieces. Returns when everything is written. While listening, says
    // them at once and in real time.
    void speak(const QByteArray& pcm, bool pace = false);

    // From now until stop(), feeds the pipe in real time as a real microphone feeds its server: a
    // quiet noise floor, and the speech given to say() from the moment it is due.
    void listen();
    // Speech to be heard from `at` on (at the next 10 ms step); returns at once.
    void say(const QByteArray& pcm, Clock::time_point at);
    // Runs the event loop until everything given to say() has been heard; when its last sample was.
    std::optional<Clock::time_point> waitUntilSaid(int timeoutMs = 60000);

private:
    void feed();

    SoundServer server_;
    QString fifo_;
    std::thread feeder_;
    std::atomic<bool> listening_{false};
    std::mutex mutex_;  // guards what follows
    QByteArray pending_;
    Clock::time_point due_;
    std::optional<Clock::time_point> said_;
};

// Float samples as signed 16-bit little-endian frames, as a pipe source reads them.
QByteArray pcm16(const std::vector<float>& samples);

// A fresh file path inside the test's sandbox.
QString sandboxPath(const QString& name);

}  // namespace AudioTest
