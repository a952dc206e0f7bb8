#include "audio/LevelMeter.h"

#include <algorithm>
#include <cmath>

float LevelMeter::rms(const float* samples, int frames, int channelCount)
{
    if (frames <= 0 || channelCount <= 0 || !samples)
        return 0;
    // Eight running sums break the dependency chain (the compiler vectorises the mono case) and
    // keep the rounding error of long blocks small.
    const std::size_t stride = static_cast<std::size_t>(channelCount);
    float lanes[8] = {};
    int i = 0;
    for (; i + 8 <= frames; i += 8)
        for (int k = 0; k < 8; ++k) {
            const float s = samples[static_cast<std::size_t>(i + k) * stride];
            lanes[k] += s * s;
        }
    float sum = 0;
    for (; i < frames; ++i) {
        const float s = samples[static_cast<std::size_t>(i) * stride];
        sum += s * s;
    }
    for (float lane : lanes)
        sum += lane;
    return std::sqrt(sum / static_cast<float>(frames));
}

LevelMeter::Reading LevelMeter::measure(const AudioBuffer& block)
{
    Reading r;
    r.rms = rms(block.samples.data(), block.frameCount(), block.format.channelCount);
    smoothed_ = r.rms * 0.6f + smoothed_ * 0.4f;
    r.level = std::min(smoothed_ * 8.0f, 1.0f);
    ampPeakSinceLog_ = std::max(ampPeakSinceLog_, r.level);
    if (++ampLogCounter_ >= logInterval) {
        r.logDue = true;
        r.peakSinceLog = ampPeakSinceLog_;
        ampLogCounter_ = 0;
        ampPeakSinceLog_ = 0;
    }
    return r;
}
