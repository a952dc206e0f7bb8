#pragma once

#include <vector>

// A stream format of 32-bit float samples, interleaved when there is more than one channel.
struct AudioFormat {
    double sampleRate = 0;
    int channelCount = 0;

    bool operator==(const AudioFormat&) const = default;
};

// One block of audio in a given format.
struct AudioBuffer {
    AudioFormat format;
    std::vector<float> samples;  // frameCount() * channelCount values

    int frameCount() const
    {
        return format.channelCount > 0 ? static_cast<int>(samples.size()) / format.channelCount : 0;
    }
};
