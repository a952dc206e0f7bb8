#pragma once

#include "core/AudioBuffer.h"

#include <QString>

// How formats read in log lines and messages.
namespace SpeechFormat {

// A sample rate with at least one decimal: 16000 → "16000.0".
QString rate(double sampleRate);
// "16000.0Hz/1ch".
QString describe(const AudioFormat& format);

}  // namespace SpeechFormat
