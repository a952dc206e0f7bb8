#include "ui/pill/WaveformAnimation.h"

#include <algorithm>
#include <cmath>

double WaveformAnimation::targetLevel(double amplitude)
{
    if (amplitude < noiseGate)
        return 0;
    return std::min(2.0 * std::sqrt(amplitude), 1.0);
}

void WaveformAnimation::stepListening(double viewHeight)
{
    phase += listeningPhaseStep;
    displayedAmp += (targetLevel(amplitude) - displayedAmp) * levelEasing;
    const double usable = viewHeight - 8.0;
    for (int i = 0; i < WaveformGeometry::barCount; ++i) {
        const double sway = std::sin(0.9 * i + phase);
        const double goal =
            std::max(usable * (0.8 + 0.2 * sway) * displayedAmp * WaveformGeometry::shape[i], WaveformGeometry::minLine);
        currentHeights[i] += (goal - currentHeights[i]) * heightEasing;
    }
}

void WaveformAnimation::stepProcessing()
{
    spinnerAngle += spinnerAngleStep;
    phase += processingPhaseStep;
    spinnerOpacity = static_cast<float>(0.7 + 0.3 * (0.5 + 0.5 * std::sin(phase)));
}

void WaveformAnimation::restBars()
{
    currentHeights.fill(WaveformGeometry::minLine);
}

void WaveformAnimation::resetLevel()
{
    amplitude = 0;
    displayedAmp = 0;
}
