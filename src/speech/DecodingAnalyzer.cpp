#include "speech/DecodingAnalyzer.h"

#include "core/Collaborators.h"
#include "speech/AnalyzerInputStream.h"
#include "speech/SpeechFormat.h"
#include "speech/SpeechResultStream.h"
#include "storage/Diagnostics.h"

#include <algorithm>
#include <cmath>

DecodingAnalyzer::DecodingAnalyzer(std::shared_ptr<SpeechResultStream> results, std::optional<AudioFormat> accepted)
    : results_(std::move(results)), accepted_(accepted)
{
}

DecodingAnalyzer::~DecodingAnalyzer() { stopDecoding(); }

void DecodingAnalyzer::stopDecoding()
{
    if (thread_.joinable())
        cancelAndFinishNow();
}

void DecodingAnalyzer::prepareToAnalyze(const AudioFormat& format)
{
    if (accepted_ && format != *accepted_) {
        throw CollaboratorError(QStringLiteral("The recognizer takes %1 audio, not %2.")
                                    .arg(SpeechFormat::describe(*accepted_), SpeechFormat::describe(format)));
    }
}

void DecodingAnalyzer::start(std::shared_ptr<AnalyzerInputStream> input)
{
    if (thread_.joinable())
        throw CollaboratorError(QStringLiteral("The analyzer has already been started."));
    input_ = std::move(input);
    thread_ = std::thread([this] { run(); });
}

void DecodingAnalyzer::finalizeAndFinishThroughEndOfInput()
{
    QString error;
    {
        std::unique_lock lock(mutex_);
        finalizeRequested_ = true;
        changed_.notify_all();
        if (!thread_.joinable()) {
            results_->finish();
            return;
        }
        changed_.wait(lock, [this] { return done_; });
        error = error_;
    }
    thread_.join();
    if (!error.isEmpty())
        throw CollaboratorError(error);
}

void DecodingAnalyzer::cancelAndFinishNow()
{
    {
        std::lock_guard lock(mutex_);
        cancelRequested_ = true;
    }
    changed_.notify_all();
    if (input_)
        input_->interrupt();
    if (thread_.joinable())
        thread_.join();
    results_->finish();
}

bool DecodingAnalyzer::cancelRequested() const
{
    std::lock_guard lock(mutex_);
    return cancelRequested_;
}

void DecodingAnalyzer::emitResult(const QString& text, bool isFinal) { results_->yield({text, isFinal}); }

bool DecodingAnalyzer::monoPcm16(const AudioBuffer& buffer, std::vector<std::int16_t>& out)
{
    const AudioFormat wanted{16000, 1};
    if (buffer.format.sampleRate != wanted.sampleRate || buffer.format.channelCount < 1) {
        if (!warned_) {
            warned_ = true;
            Diagnostics::log(QStringLiteral("transcriber: dropping audio in ") + SpeechFormat::describe(buffer.format)
                             + QStringLiteral("; the recognizer takes ") + SpeechFormat::describe(wanted));
        }
        return false;
    }
    const int channels = buffer.format.channelCount;
    const int frames = buffer.frameCount();
    out.resize(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        float sum = 0;
        for (int c = 0; c < channels; ++c)
            sum += buffer.samples[static_cast<size_t>(i * channels + c)];
        const float v = std::clamp(sum / static_cast<float>(channels), -1.0f, 1.0f);
        out[static_cast<size_t>(i)] = static_cast<std::int16_t>(std::lrint(v * 32767.0f));
    }
    return true;
}

void DecodingAnalyzer::run()
{
    QString error;
    try {
        beginDecoding();
        AudioBuffer buffer;
        for (;;) {
            if (cancelRequested())
                break;
            const auto next = input_->next(buffer);
            if (next == AnalyzerInputStream::Next::buffer) {
                if (cancelRequested())
                    break;
                decode(buffer);
                if (!input_->hasPending())
                    caughtUp();
                continue;
            }
            if (next == AnalyzerInputStream::Next::interrupted)
                continue;
            // End of input: decode the rest once asked to finalize; until then keep what we have.
            bool finalize = false;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [this] { return finalizeRequested_ || cancelRequested_; });
                finalize = !cancelRequested_;
            }
            if (finalize)
                finalizeDecoding();
            break;
        }
    } catch (const CollaboratorError& e) {
        error = e.localizedDescription();
    } catch (const std::exception& e) {
        error = QString::fromUtf8(e.what());
    }
    try {
        endDecoding();
    } catch (...) {
    }
    if (error.isEmpty())
        results_->finish();
    else
        results_->fail(error);
    {
        std::lock_guard lock(mutex_);
        error_ = error;
        done_ = true;
    }
    changed_.notify_all();
}
