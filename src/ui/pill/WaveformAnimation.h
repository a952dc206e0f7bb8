#pragma once

#include "ui/pill/WaveformGeometry.h"

// The pill's per-frame animation values. Every increment is per frame (the frame clock ticks every
// 16 ms), so a faster clock runs the animation proportionally faster. Pure: no display needed.
class WaveformAnimation {
public:
    static constexpr double noiseGate = 0.03;
    static constexpr double levelEasing = 0.12;
    static constexpr double heightEasing = 0.16;
    static constexpr double listeningPhaseStep = 0.13;
    static constexpr double processingPhaseStep = 0.05;
    static constexpr double spinnerAngleStep = -0.1;  // radians; negative turns clockwise on screen

    double amplitude = 0;     // the latest input level, 0 to 1
    double displayedAmp = 0;  // the eased level that drives the bars
    double phase = 0;         // shared by the bars' sway and the spinner's pulse
    double spinnerAngle = 0;
    float spinnerOpacity = 1.0f;
    WaveformGeometry::Heights currentHeights{WaveformGeometry::minLine, WaveformGeometry::minLine,
                                             WaveformGeometry::minLine};

    // The level the bars head for: 0 below the noise gate, else min(2 * sqrt(level), 1).
    static double targetLevel(double amplitude);

    // One listening frame for a view of the given height: ease the level, sway the bars.
    void stepListening(double viewHeight);
    // One processing frame: turn the ring clockwise and pulse its opacity between 0.7 and 1.
    void stepProcessing();
    // Every bar back to the minimum height at once.
    void restBars();
    // The level is forgotten when the frame clock stops.
    void resetLevel();
};
