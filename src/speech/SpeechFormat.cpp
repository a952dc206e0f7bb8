#include "speech/SpeechFormat.h"

#include <cmath>

namespace SpeechFormat {

QString rate(double sampleRate)
{
    if (std::floor(sampleRate) == sampleRate && std::abs(sampleRate) < 1e15)
        return QString::number(sampleRate, 'f', 1);
    return QString::number(sampleRate, 'g', 17);
}

QString describe(const AudioFormat& format)
{
    return rate(format.sampleRate) + QStringLiteral("Hz/") + QString::number(format.channelCount) + QStringLiteral("ch");
}

}  // namespace SpeechFormat
