#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

// Finds the pauses between a speaker's phrases in 16 kHz audio, from the loudness of 10 ms frames:
// a frame is quiet when it is within `margin` of the quietest frame of the last two seconds, which
// follows the room's noise whatever the microphone's gain, while speech in those seconds stands
// well above it. A pause is a run of quiet frames at least `length` long; it is reported once, at
// the frame that makes it long enough.
class PauseDetector {
public:
    static constexpr int frameSamples = 160;  // 10 ms at 16 kHz

    explicit PauseDetector(std::chrono::milliseconds length, double marginDb = 15.0);

    // Takes the next samples; true when a pause became long enough within them.
    bool feed(const std::int16_t* samples, std::size_t count);
    void reset();
    // How many frames have passed since the last one that stood out from the room's noise.
    int framesSinceSound() const { return sinceSound_; }

private:
    bool endFrame();

    int pauseFrames_;
    double marginDb_;
    std::vector<double> recentDb_;  // ring of the last two seconds of frame levels
    std::size_t next_ = 0;
    std::size_t filled_ = 0;
    double energy_ = 0;  // of the frame being filled
    int inFrame_ = 0;
    int quietRun_ = 0;
    int sinceSound_ = 0;
};

// When to end a decoder's segment early: once it has lasted `after`, at the next pause of `pause`.
// Zero `after` never ends one. The engine and the benchmarks' bare decoder segment alike through it.
class SegmentSplitter {
public:
    SegmentSplitter(std::chrono::milliseconds after, std::chrono::milliseconds pause);

    // A new stream, whose quiet lead-in sets the floor pauses are measured against.
    void begin(const std::vector<std::int16_t>& leadIn);
    // Takes the open segment's next samples; true when it should end after them.
    bool shouldEnd(const std::int16_t* samples, std::size_t count);
    void segmentEnded() { segmentSamples_ = 0; }
    int framesSinceSound() const { return pauses_.framesSinceSound(); }

private:
    PauseDetector pauses_;
    long afterSamples_;
    long segmentSamples_ = 0;
};
