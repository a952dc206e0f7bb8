#pragma once

#include "speech/PauseDetector.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

// Cuts a dictation's 16 kHz audio into the segments a transcription server is sent one by one
// while the user still speaks: a segment ends at a pause, or when it has grown to the longest a
// server takes at once. Each segment keeps `overlap` of audio beyond both sides of its cut, so a
// word that runs into a pause is heard whole on at least one side. The cut lies `overlap` into the
// pause, so the next segment starts where the pause began and holds nothing of the word before.
//
// It only decides where segments lie; the caller keeps the audio. Positions count samples from the
// start of the dictation.
class SpeechSegmenter {
public:
    struct Settings {
        std::chrono::milliseconds pause{300};
        std::chrono::milliseconds longest{25000};
        std::chrono::milliseconds overlap{200};
        // A pause ends a segment only once it has lasted this long, so a segment is never a sliver.
        std::chrono::milliseconds shortest{1000};
    };
    struct Segment {
        long begin = 0;  // first sample sent, overlap included
        long end = 0;    // one past the last sample sent
        long cut = 0;    // where the segment's own audio begins (its left cut; 0 for the first)

        bool operator==(const Segment&) const = default;
    };

    explicit SpeechSegmenter(Settings settings);

    // Takes the next samples; the segments whose audio is now complete, in order.
    std::vector<Segment> feed(const std::int16_t* samples, std::size_t count);
    // The input has ended: what is left, as at most two segments (one whose right overlap had not
    // arrived yet, and the unfinished one). A last segment that is nothing but the pause after the
    // previous cut is dropped: it holds no words, and servers tend to invent some for silence.
    std::vector<Segment> finish();

    // The segment still open: its beginning, the audio so far and its left cut.
    Segment open() const { return {begin_, total_, cut_}; }

private:
    static long samples(std::chrono::milliseconds duration) { return static_cast<long>(duration.count()) * 16; }
    void cutAt(long cut, long end);

    Settings settings_;
    SegmentSplitter splitter_;
    long total_ = 0;
    long begin_ = 0;       // of the open segment
    long cut_ = 0;         // its own audio starts here
    long pendingCut_ = -1; // a decided cut whose right overlap has not all arrived
    long pendingEnd_ = 0;
    bool pendingAtPause_ = false;
    bool cutAtPause_ = false;  // the open segment's left cut lies in a pause
};
