#pragma once

// Signals made in code, WAV files, and sound servers of the test's own.

#include "audio/AudioBuffer.h"

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <vector>

namespace AudioTest {

// `frames` frames of a sine of `frequency` Hz and peak `amplitude` on every channel, starting at
// frame `offset` of the same endless tone (so consecutive blocks join without a jump).
AudioBuffer sine(AudioFormat format, int frames, double frequency, float amplitude, long offset = 0);

// The same block with every sample set to `value`.
AudioBuffer constant(AudioFormat format, int frames, float value);

// Channel `channel` of interleaved samples.
std::vector<float> channel(const AudioBuffer& buffer, int channel);

// Root mean square of a run of samples.
double rms(const std::vector<float>& samples, std::size_t from = 0);

// Power of `frequency` in the samples by the Goertzel algorithm, normalised so that a full-scale sine
// of that frequency gives about 0.25 * amplitude^2.
double tonePower(const std::vector<float>& samples, double sampleRate, double frequency, std::size_t from = 0);

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

// A sound server whose default source "mic" is a pipe read as 16 kHz mono s16le (while nothing is
// written, it delivers nothing).
class PipeMicrophone {
public:
    PipeMicrophone();
    QString start();
    void stop() { server_.stop(); }
    // Writes 16-bit samples into the pipe on a thread of its own; with `pace`, at the speed a
    // person speaks, in 100 ms pieces. Returns when everything is written.
    void speak(const QByteArray& pcm, bool pace = false);

private:
    SoundServer server_;
    QString fifo_;
};

// Float samples as signed 16-bit little-endian frames, as a pipe source reads them.
QByteArray pcm16(const std::vector<float>& samples);

// A fresh file path inside the test's sandbox.
QString sandboxPath(const QString& name);

}  // namespace AudioTest
