#pragma once

// Signals made in code, WAV files and synthesised speech for the audio tests.

#include "audio/AudioBuffer.h"

#include <QString>

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

// Speaks `text` into a WAV file with espeak-ng; false when espeak-ng is missing or fails.
bool speak(const QString& text, const QString& path);

// Keeps sound-server clients of this test from starting a daemon of their own (libpulse's
// autospawn), through the client configuration in the test's XDG_CONFIG_HOME; false when it cannot.
bool forbidSoundServerAutospawn();

// A fresh file path inside the test's sandbox.
QString sandboxPath(const QString& name);

}  // namespace AudioTest
