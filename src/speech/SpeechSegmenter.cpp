#include "speech/SpeechSegmenter.h"

#include <algorithm>

SpeechSegmenter::SpeechSegmenter(Settings settings)
    : settings_(settings), splitter_(std::max(settings.shortest, std::chrono::milliseconds(1)), settings.pause)
{
    splitter_.begin({});
}

void SpeechSegmenter::cutAt(long cut, long end)
{
    pendingCut_ = cut;
    pendingEnd_ = std::min(end, begin_ + samples(settings_.longest));
    splitter_.segmentEnded();
}

std::vector<SpeechSegmenter::Segment> SpeechSegmenter::feed(const std::int16_t* samples, std::size_t count)
{
    std::vector<Segment> done;
    const long longest = SpeechSegmenter::samples(settings_.longest);
    const long overlap = SpeechSegmenter::samples(settings_.overlap);
    std::size_t at = 0;
    while (at < count) {
        // Steps of at most the rest of a detector frame, so a pause is seen where its frame ends,
        // and ending exactly where a segment must end.
        long step = std::min<long>(PauseDetector::frameSamples - total_ % PauseDetector::frameSamples, static_cast<long>(count - at));
        step = std::min(step, (pendingCut_ >= 0 ? pendingEnd_ : begin_ + longest) - total_);
        const std::int16_t* chunk = samples + at;
        at += static_cast<std::size_t>(step);
        total_ += step;
        const bool paused = splitter_.shouldEnd(chunk, static_cast<std::size_t>(step));
        if (pendingCut_ < 0) {
            if (total_ - begin_ >= longest)
                cutAt(total_ - overlap, total_);
            else if (paused)  // the next segment starts where the pause began; this one ends a little into it
            {
                const long cut = std::max(cut_ + 1, total_ - SpeechSegmenter::samples(settings_.pause) + overlap);
                cutAt(cut, cut + overlap);
                pendingAtPause_ = true;
            }
        }
        if (pendingCut_ >= 0 && total_ >= pendingEnd_) {
            done.push_back({begin_, pendingEnd_, cut_});
            begin_ = std::max(0L, pendingCut_ - overlap);
            cut_ = pendingCut_;
            cutAtPause_ = pendingAtPause_;
            pendingCut_ = -1;
            pendingAtPause_ = false;
        }
    }
    return done;
}

std::vector<SpeechSegmenter::Segment> SpeechSegmenter::finish()
{
    std::vector<Segment> rest;
    if (pendingCut_ >= 0) {
        rest.push_back({begin_, total_, cut_});
        begin_ = std::max(0L, pendingCut_ - samples(settings_.overlap));
        cut_ = pendingCut_;
        cutAtPause_ = pendingAtPause_;
        pendingCut_ = -1;
    }
    const bool onlyPause = cutAtPause_ && static_cast<long>(splitter_.framesSinceSound()) * PauseDetector::frameSamples >= total_ - cut_;
    if (total_ > cut_ && !onlyPause)
        rest.push_back({begin_, total_, cut_});
    begin_ = cut_ = total_;
    return rest;
}
