#include "audio/AudioConverter.h"

#include <QLocale>

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

void setError(QString* error, const QString& text)
{
    if (error)
        *error = text;
}

}  // namespace

std::unique_ptr<AudioConverter> AudioConverter::create(const AudioFormat& from, const AudioFormat& to, QString* error)
{
    const bool ratesValid = from.sampleRate > 0 && to.sampleRate > 0 && std::isfinite(from.sampleRate) &&
                            std::isfinite(to.sampleRate);
    const bool channelsValid = from.channelCount > 0 && to.channelCount > 0 &&
                               (from.channelCount == to.channelCount || from.channelCount == 1 || to.channelCount == 1);
    if (!ratesValid || !channelsValid) {
        setError(error, QStringLiteral("cannot convert %1 to %2").arg(describe(from), describe(to)));
        return nullptr;
    }
    soxr* resampler = nullptr;
    if (from.sampleRate != to.sampleRate) {
        const int channels = std::min(from.channelCount, to.channelCount);
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        // Smaller transform blocks than the default: output follows each input block closely
        // (about 12 ms behind at 48 kHz) instead of arriving in bursts every other block.
        soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
        runtime.log2_large_dft_size = 10;
        soxr_error_t failure = nullptr;
        resampler = soxr_create(from.sampleRate, to.sampleRate, static_cast<unsigned>(channels), &failure, &io,
                                &quality, &runtime);
        if (!resampler || failure) {
            setError(error, QStringLiteral("cannot resample %1 to %2: %3")
                                .arg(describe(from), describe(to), QString::fromUtf8(failure ? failure : "unknown")));
            soxr_delete(resampler);
            return nullptr;
        }
    }
    return std::unique_ptr<AudioConverter>(new AudioConverter(from, to, resampler));
}

AudioConverter::AudioConverter(const AudioFormat& from, const AudioFormat& to, soxr* resampler)
    : from_(from), to_(to), resampler_(resampler), workChannels_(std::min(from.channelCount, to.channelCount))
{
    // Room for the usual block sizes up front, so the audio thread does not allocate later.
    if (from_.channelCount > workChannels_)
        mixed_.resize(4096);
    if (to_.channelCount > workChannels_)
        spread_.resize(8192);
}

AudioConverter::~AudioConverter()
{
    soxr_delete(resampler_);
}

double AudioConverter::delay() const
{
    return resampler_ ? soxr_delay(resampler_) : 0.0;
}

std::optional<std::uint32_t> AudioConverter::frameCapacity(const AudioBuffer& input, const AudioFormat& target)
{
    if (!(input.format.sampleRate > 0) || !(target.sampleRate >= 0))
        return std::nullopt;
    const double scaled = std::trunc(target.sampleRate / input.format.sampleRate * input.frameCount());
    const double capacity = scaled + 1024.0;
    if (!(capacity <= std::numeric_limits<std::uint32_t>::max()))
        return std::nullopt;
    return static_cast<std::uint32_t>(capacity);
}

std::optional<AudioBuffer> AudioConverter::convertBlock(const AudioBuffer& input)
{
    const auto capacity = frameCapacity(input, to_);
    if (!capacity)
        return std::nullopt;
    AudioBuffer output;
    bool handedOver = false;  // fresh for each conversion: the block goes in exactly once
    const OutputStatus status = convert(output, *capacity, [&](const AudioBuffer*& block) {
        if (handedOver)
            return InputStatus::noDataNow;
        handedOver = true;
        block = &input;
        return InputStatus::haveData;
    });
    if (status == OutputStatus::error)
        return std::nullopt;
    return output;
}

AudioBuffer AudioConverter::finishStream()
{
    AudioBuffer output;
    // The delay of soxr's filters, at any rate ratio a microphone has, is far below this.
    convert(output, 8192, [](const AudioBuffer*&) { return InputStatus::endOfStream; });
    return output;
}

QString AudioConverter::describe(const AudioFormat& format)
{
    return QStringLiteral("%1 Hz, %2 ch, Float32, %3")
        .arg(QString::number(format.sampleRate, 'f', QLocale::FloatingPointShortest))
        .arg(format.channelCount)
        .arg(format.channelCount > 1 ? QStringLiteral("interleaved") : QStringLiteral("mono"));
}

void AudioConverter::begin(AudioBuffer& output, const AudioFormat& format, std::uint32_t capacity)
{
    output.format = format;
    output.samples.clear();
    output.samples.resize(static_cast<std::size_t>(capacity) * format.channelCount);
}

bool AudioConverter::push(const AudioBuffer* block, AudioBuffer& output, std::uint32_t& frames, std::uint32_t capacity,
                          QString* error)
{
    if (!block) {
        setError(error, QStringLiteral("the input reported data but handed over no block"));
        return false;
    }
    if (!(block->format == from_)) {
        setError(error, QStringLiteral("a block of %1 reached a converter for %2").arg(describe(block->format), describe(from_)));
        return false;
    }
    const int inFrames = block->frameCount();
    if (inFrames == 0)
        return true;

    // Bring the block to the channel count that goes through the resampler.
    const float* in = block->samples.data();
    if (from_.channelCount > workChannels_) {
        if (mixed_.size() < static_cast<std::size_t>(inFrames))
            mixed_.resize(static_cast<std::size_t>(inFrames));
        const int channels = from_.channelCount;
        const float scale = 1.0f / static_cast<float>(channels);
        for (int i = 0; i < inFrames; ++i) {
            float sum = 0;
            for (int c = 0; c < channels; ++c)
                sum += in[static_cast<std::size_t>(i) * channels + c];
            mixed_[static_cast<std::size_t>(i)] = sum * scale;
        }
        in = mixed_.data();
    }

    const std::uint32_t room = capacity - frames;
    float* out = outputArea(output, frames, room);

    std::size_t produced = 0;
    if (!resampler_) {
        if (static_cast<std::uint32_t>(inFrames) > room) {
            setError(error, QStringLiteral("a block of %1 frames does not fit the %2 frames left in the output")
                                .arg(inFrames).arg(room));
            return false;
        }
        std::copy_n(in, static_cast<std::size_t>(inFrames) * workChannels_, out);
        produced = static_cast<std::size_t>(inFrames);
    } else {
        std::size_t consumed = 0;
        while (consumed < static_cast<std::size_t>(inFrames)) {
            std::size_t idone = 0;
            std::size_t odone = 0;
            const soxr_error_t failure =
                soxr_process(resampler_, in + consumed * workChannels_, static_cast<std::size_t>(inFrames) - consumed,
                             &idone, out + produced * workChannels_, room - produced, &odone);
            if (failure) {
                setError(error, QStringLiteral("resampling failed: %1").arg(QString::fromUtf8(failure)));
                return false;
            }
            consumed += idone;
            produced += odone;
            if (idone == 0 && consumed < static_cast<std::size_t>(inFrames) && produced >= room) {
                setError(error, QStringLiteral("the output buffer of %1 frames is too small for a block of %2 frames")
                                    .arg(capacity).arg(inFrames));
                return false;
            }
        }
    }

    commit(output, frames, produced);
    return true;
}

void AudioConverter::flush(AudioBuffer& output, std::uint32_t& frames, std::uint32_t capacity)
{
    if (!resampler_)
        return;
    while (frames < capacity) {
        const std::uint32_t room = capacity - frames;
        std::size_t odone = 0;
        if (soxr_process(resampler_, nullptr, 0, nullptr, outputArea(output, frames, room), room, &odone) || odone == 0)
            return;
        commit(output, frames, odone);
    }
}

float* AudioConverter::outputArea(AudioBuffer& output, std::uint32_t frames, std::uint32_t room)
{
    if (to_.channelCount == workChannels_)
        return output.samples.data() + static_cast<std::size_t>(frames) * to_.channelCount;
    // Mono that will be copied to every channel goes through a scratch buffer first.
    if (spread_.size() < room)
        spread_.resize(room);
    return spread_.data();
}

void AudioConverter::commit(AudioBuffer& output, std::uint32_t& frames, std::size_t produced)
{
    if (to_.channelCount > workChannels_) {
        float* dest = output.samples.data() + static_cast<std::size_t>(frames) * to_.channelCount;
        for (std::size_t i = 0; i < produced; ++i)
            for (int c = 0; c < to_.channelCount; ++c)
                dest[i * to_.channelCount + c] = spread_[i];
    }
    frames += static_cast<std::uint32_t>(produced);
}
