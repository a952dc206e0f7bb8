#include "audio/AudioEngineController.h"

#include "storage/Diagnostics.h"

#include <QLocale>

namespace {

// A sample rate as the route line prints it: shortest exact form, at least one decimal ("48000.0").
QString rateText(double rate)
{
    QString text = QString::number(rate, 'f', QLocale::FloatingPointShortest);
    if (!text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('n')))  // leave "inf"/"nan" alone
        text += QStringLiteral(".0");
    return text;
}

}  // namespace

AudioEngineController::AudioEngineController(std::unique_ptr<CaptureSource> source, QObject* parent)
    : QObject(parent), source_(std::move(source))
{
    Q_ASSERT(source_);
}

AudioEngineController::~AudioEngineController()
{
    removeConfigObserver();
    source_->stop();  // no block may reach this object once it is gone
}

void AudioEngineController::setTargetFormat(std::optional<AudioFormat> format)
{
    targetFormat_ = format;
}

bool AudioEngineController::formatsMatch(const AudioFormat& a, const AudioFormat& b)
{
    // Both sides are float samples, interleaved beyond one channel: rate and channels decide.
    return a.sampleRate == b.sampleRate && a.channelCount == b.channelCount;
}

void AudioEngineController::start()
{
    if (running_)
        return;
    installTap();
    startCapture();
    running_ = true;
    addConfigObserver();
}

void AudioEngineController::stop()
{
    if (!running_)
        return;
    removeConfigObserver();
    source_->stop();
    // The resampler's held-back samples are the last few milliseconds before the key came up.
    if (tap_ && tap_->converter) {
        if (AudioBuffer rest = tap_->converter->finishStream(); !rest.samples.empty() && onBuffer)
            onBuffer(std::move(rest));
    }
    running_ = false;
    meter_.resetLevel();
    if (onAmplitude)
        onAmplitude(0.0f);  // the meters fall to rest
}

void AudioEngineController::Trail::note(float rms, double seconds)
{
    {
        std::lock_guard lock(mutex);
        room = std::min(room, rms);
        latest = rms;
        if (!waiting || ended)
            return;
        waitedSeconds += seconds;
        ended = !speech(rms) || waitedSeconds >= std::chrono::duration<double>(trailingLimit).count();
        if (!ended)
            return;
    }
    arrived.notify_all();
}

void AudioEngineController::stopAfterSpeech()
{
    if (running_ && tap_) {
        Trail& trail = tap_->trail;
        std::unique_lock lock(trail.mutex);
        if (trail.speech(trail.latest)) {
            trail.waiting = true;
            const auto begun = std::chrono::steady_clock::now();
            // Bounded by the clock too: a microphone that stalls must not hold up the key-up.
            trail.arrived.wait_for(lock, trailingLimit * 3, [&trail] { return trail.ended; });
            Diagnostics::log(QStringLiteral("audio: speech went on at the stop; %1 ms more taken in")
                                 .arg(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begun).count(), 0, 'f', 0));
        }
    }
    stop();
}

void AudioEngineController::installTap()
{
    const auto begun = std::chrono::steady_clock::now();
    const AudioFormat input = source_->inputFormat();
    const AudioFormat target = targetFormat_.value_or(defaultTargetFormat);
    auto tap = std::make_shared<Tap>();
    tap->target = target;
    tap->startedAt = begun;
    if (!formatsMatch(input, target)) {
        tap->converter = AudioConverter::create(input, target);
        if (!tap->converter)
            Diagnostics::log(QStringLiteral("audio: AVAudioConverter init FAILED for ") + AudioConverter::describe(input) +
                             QStringLiteral(" → ") + AudioConverter::describe(target));
    }
    Diagnostics::log(QStringLiteral("audio: input=%1Hz/%2ch → target=%3Hz/%4ch, converter=%5")
                         .arg(rateText(input.sampleRate))
                         .arg(input.channelCount)
                         .arg(rateText(target.sampleRate))
                         .arg(target.channelCount)
                         .arg(tap->converter ? QStringLiteral("yes") : QStringLiteral("passthrough")));
    tap_ = std::move(tap);
}

void AudioEngineController::startCapture()
{
    source_->start([this, tap = tap_](const AudioBuffer& block) { process(*tap, block); });
}

void AudioEngineController::process(Tap& tap, const AudioBuffer& block)
{
    if (!tap.heard) {
        // Speech before the first block is lost: how long this takes is worth knowing.
        tap.heard = true;
        const auto waited = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - tap.startedAt);
        Diagnostics::log(QStringLiteral("audio: first block %1 ms after the start").arg(waited.count(), 0, 'f', 1));
    }
    const LevelMeter::Reading reading = meter_.measure(block);
    tap.trail.note(reading.rms, block.format.sampleRate > 0 ? block.frameCount() / block.format.sampleRate : 0.0);
    if (onAmplitude)
        onAmplitude(reading.level);
    if (reading.logDue)
        Diagnostics::log(QString::asprintf("audio: peak amp %.3f (rms %.4f)", double(reading.peakSinceLog), double(reading.rms)));
    if (tap.converter) {
        std::optional<AudioBuffer> converted = tap.converter->convertBlock(block);
        if (!converted)
            return;  // this block is lost; the next one converts as usual
        if (onBuffer)
            onBuffer(std::move(*converted));
    } else if (onBuffer) {
        onBuffer(block);
    }
}

void AudioEngineController::addConfigObserver()
{
    removeConfigObserver();
    configObserver_ = connect(source_.get(), &CaptureSource::configurationChanged, this,
                              &AudioEngineController::handleConfigChange, Qt::QueuedConnection);
}

void AudioEngineController::removeConfigObserver()
{
    if (configObserver_)
        disconnect(configObserver_);
    configObserver_ = {};
}

void AudioEngineController::handleConfigChange()
{
    if (!running_)
        return;
    Diagnostics::log(QStringLiteral("audio: configuration changed — rebuilding tap and restarting"));
    source_->stop();
    meter_.resetLevel();
    try {
        installTap();
        startCapture();
        Diagnostics::log(QStringLiteral("audio: engine restarted after configuration change"));
    } catch (const std::exception& error) {
        Diagnostics::log(QStringLiteral("audio: restart after configuration change FAILED: ") + describeError(error));
        running_ = false;
    }
}
