#pragma once

#include "core/AudioBuffer.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

struct soxr;

// Converts a stream of float blocks from one sample rate and channel count to another with libsoxr.
// Several channels into one are averaged; one channel into several is copied to each.
//
// Input is pulled: convert() asks `pull` for blocks until the output is full or `pull` has nothing
// more for now. The resampler keeps its filter state between calls, so consecutive blocks of a
// stream join without clicks. One converter serves one stream on one thread at a time; apart from
// the output buffer the caller hands in, it allocates only when a block is larger than any before.
class AudioConverter {
public:
    enum class InputStatus { haveData, noDataNow, endOfStream };
    enum class OutputStatus { haveData, inputRanDry, endOfStream, error };

    // A converter between the two formats, or null when it cannot convert between them (a rate that
    // is not positive, or channel counts neither equal nor one of them mono). `error` says why.
    static std::unique_ptr<AudioConverter> create(const AudioFormat& from, const AudioFormat& to,
                                                  QString* error = nullptr);
    ~AudioConverter();
    AudioConverter(const AudioConverter&) = delete;
    AudioConverter& operator=(const AudioConverter&) = delete;

    const AudioFormat& inputFormat() const { return from_; }
    const AudioFormat& outputFormat() const { return to_; }

    // Fills `output` (set to the output format, at most `frameCapacity` frames, allocated once with
    // that capacity) from blocks handed over by `pull(const AudioBuffer*& block)`, which answers
    // haveData with a block in the input format, noDataNow, or endOfStream (the resampler's tail is
    // then flushed). Returns haveData when the output filled up, inputRanDry after noDataNow,
    // endOfStream after the flush, and error (with `error` set) for a block in another format or
    // one that does not fit the remaining capacity.
    template <typename Pull>
    OutputStatus convert(AudioBuffer& output, std::uint32_t frameCapacity, Pull&& pull, QString* error = nullptr);

    // The output capacity for one block: the rate ratio times its frames, truncated, plus 1024
    // frames of head-room for what the resampler holds back; none when that does not fit 32 bits.
    static std::optional<std::uint32_t> frameCapacity(const AudioBuffer& input, const AudioFormat& target);

    // Converts one block by the rule above: the block is handed over exactly once, then the pull
    // reports noDataNow. None on a conversion error (the block is lost, the stream goes on).
    std::optional<AudioBuffer> convertBlock(const AudioBuffer& input);

    // What the resampler still holds back, once the stream has ended (it may be empty). The
    // converter takes no more input after it.
    AudioBuffer finishStream();

    // Output frames the resampler holds back at the moment (its delay).
    double delay() const;

    // A short text for log lines, e.g. "48000 Hz, 2 ch, Float32, interleaved".
    static QString describe(const AudioFormat& format);

private:
    AudioConverter(const AudioFormat& from, const AudioFormat& to, soxr* resampler);
    bool push(const AudioBuffer* block, AudioBuffer& output, std::uint32_t& frames, std::uint32_t capacity,
              QString* error);
    void flush(AudioBuffer& output, std::uint32_t& frames, std::uint32_t capacity);
    float* outputArea(AudioBuffer& output, std::uint32_t frames, std::uint32_t room);
    void commit(AudioBuffer& output, std::uint32_t& frames, std::size_t produced);
    static void begin(AudioBuffer& output, const AudioFormat& format, std::uint32_t capacity);

    AudioFormat from_;
    AudioFormat to_;
    soxr* resampler_;            // null when only the channel count changes
    int workChannels_;           // channels that go through the resampler
    std::vector<float> mixed_;   // input mixed down before resampling
    std::vector<float> spread_;  // mono output before it is copied to every channel
};

template <typename Pull>
AudioConverter::OutputStatus AudioConverter::convert(AudioBuffer& output, std::uint32_t frameCapacity, Pull&& pull,
                                                     QString* error)
{
    begin(output, to_, frameCapacity);
    std::uint32_t frames = 0;
    auto finish = [&](OutputStatus status) {
        output.samples.resize(static_cast<std::size_t>(frames) * to_.channelCount);
        return status;
    };
    while (frames < frameCapacity) {
        const AudioBuffer* block = nullptr;
        switch (pull(block)) {
        case InputStatus::noDataNow:
            return finish(OutputStatus::inputRanDry);
        case InputStatus::endOfStream:
            flush(output, frames, frameCapacity);
            return finish(OutputStatus::endOfStream);
        case InputStatus::haveData:
            if (!push(block, output, frames, frameCapacity, error))
                return finish(OutputStatus::error);
            break;
        }
    }
    return finish(OutputStatus::haveData);
}
