#include "speech/PauseDetector.h"

#include <algorithm>
#include <cmath>

namespace {
// How far speech must stand above the floor for pauses to be told apart from it.
constexpr double contrastDb = 25.0;
}  // namespace

PauseDetector::PauseDetector(std::chrono::milliseconds length, double marginDb)
    : pauseFrames_(std::max<int>(1, static_cast<int>(length.count() / 10))), marginDb_(marginDb), recentDb_(200)
{
}

void PauseDetector::reset()
{
    next_ = filled_ = 0;
    energy_ = 0;
    inFrame_ = quietRun_ = sinceSound_ = 0;
}

bool PauseDetector::feed(const std::int16_t* samples, std::size_t count)
{
    bool found = false;
    for (std::size_t i = 0; i < count; ++i) {
        energy_ += static_cast<double>(samples[i]) * samples[i];
        if (++inFrame_ == frameSamples)
            found = endFrame() || found;
    }
    return found;
}

SegmentSplitter::SegmentSplitter(std::chrono::milliseconds after, std::chrono::milliseconds pause)
    : pauses_(pause), afterSamples_(static_cast<long>(after.count()) * 16)
{
}

void SegmentSplitter::begin(const std::vector<std::int16_t>& leadIn)
{
    pauses_.reset();
    pauses_.feed(leadIn.data(), leadIn.size());
    segmentSamples_ = 0;
}

bool SegmentSplitter::shouldEnd(const std::int16_t* samples, std::size_t count)
{
    segmentSamples_ += static_cast<long>(count);
    return afterSamples_ > 0 && pauses_.feed(samples, count) && segmentSamples_ >= afterSamples_;
}

bool PauseDetector::endFrame()
{
    const double db = 10.0 * std::log10(energy_ / frameSamples + 1.0);
    energy_ = 0;
    inFrame_ = 0;
    recentDb_[next_] = db;
    next_ = (next_ + 1) % recentDb_.size();
    filled_ = std::min(filled_ + 1, recentDb_.size());
    const auto [quietest, loudest] = std::minmax_element(recentDb_.begin(), recentDb_.begin() + static_cast<std::ptrdiff_t>(filled_));
    sinceSound_ = db > *quietest + marginDb_ ? 0 : sinceSound_ + 1;
    // Without speech well above the floor in the window (speech from the first frame, or nothing
    // but noise) there is nothing to tell a pause from.
    if (db > *quietest + marginDb_ || *loudest < *quietest + contrastDb) {
        quietRun_ = 0;
        return false;
    }
    return ++quietRun_ == pauseFrames_;
}
