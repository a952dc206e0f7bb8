#pragma once

#include "core/AudioBuffer.h"

#include <cstdint>

// The loudness shown by the meters, one reading per captured block: the root mean square of the first
// channel, smoothed so the pill's waveform does not flicker, scaled so speech fills the range, and a
// running peak that is written to the diagnostic log every `logInterval` blocks.
// Plain arithmetic, no allocation: safe on the audio thread. Not thread-safe; one thread at a time.
class LevelMeter {
public:
    static constexpr std::int64_t logInterval = 45;

    struct Reading {
        float rms = 0;          // this block's own root mean square (channel 0)
        float level = 0;        // the meter level, 0 to 1
        bool logDue = false;    // a peak line is due for this block
        float peakSinceLog = 0; // when logDue: the highest level since the previous line
    };

    // Measures one block and advances the filter and the log cadence.
    Reading measure(const AudioBuffer& block);

    // Root mean square of channel 0 of interleaved samples; 0 for no frames.
    static float rms(const float* samples, int frames, int channelCount);

    // Brings the level to rest (the microphone stopped); the log cadence and its peak carry on.
    void resetLevel() { smoothed_ = 0; }

    float smoothed() const { return smoothed_; }

private:
    float smoothed_ = 0;
    float ampPeakSinceLog_ = 0;
    std::int64_t ampLogCounter_ = 0;
};
