#include "speech/TranscriberController.h"

#include "speech/AbstractModelInventory.h"
#include "speech/AnalyzerInputStream.h"
#include "speech/Background.h"
#include "speech/ModelInventory.h"
#include "speech/ServerSpeechEngine.h"
#include "speech/SpeechEngine.h"
#include "speech/SpeechFormat.h"
#include "speech/SpeechResultStream.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <algorithm>

namespace {

QString describe(const std::exception& error)
{
    if (const auto* e = dynamic_cast<const CollaboratorError*>(&error))
        return e->localizedDescription();
    return QString::fromUtf8(error.what());
}

// en_US and en-US name the same language; BCP-47 writes the hyphen.
QString bcp47(QString identifier)
{
    identifier.replace(QLatin1Char('_'), QLatin1Char('-'));
    return identifier.trimmed();
}

// Samples are interleaved only when there are several channels. (A function, not a conditional
// expression in the coroutine: GCC 12 mishandles temporaries of those in coroutine frames.)
QString interleavedText(const AudioFormat& format)
{
    return format.channelCount > 1 ? QStringLiteral("true") : QStringLiteral("false");
}

}  // namespace

TranscriberController::TranscriberController(QObject* parent)
    : TranscriberController(std::make_shared<ModelInventory>(), parent)
{
}

TranscriberController::TranscriberController(std::shared_ptr<AbstractModelInventory> models, QObject* parent)
    : QObject(parent), models_(std::move(models))
{
}

TranscriberController::~TranscriberController()
{
    // The results loop uses this object: stop the session and wait for the loop before going away.
    setContinuation(nullptr);
    if (transcriber_)
        transcriber_->cancel();
    if (analyzer_)
        analyzer_->cancelAndFinishNow();
    if (resultsTask_)
        resultsTask_->waitForFinished();
}

std::optional<AudioFormat> TranscriberController::analyzerFormat() const { return analyzerFormat_; }

std::shared_ptr<AudioInputStream> TranscriberController::inputContinuation() const
{
    return inputContinuation_.load(std::memory_order_acquire);
}

void TranscriberController::setContinuation(std::shared_ptr<AudioInputStream> continuation)
{
    inputContinuation_.store(std::move(continuation), std::memory_order_release);
}

QCoro::Task<QStringList> TranscriberController::supportedLocaleIdentifiers()
{
    ModelInventory models;
    co_return co_await supportedLocaleIdentifiers(models);
}

QCoro::Task<QStringList> TranscriberController::supportedLocaleIdentifiers(AbstractModelInventory& models)
{
    QStringList ids;
    for (const QString& locale : co_await models.supportedLocales())
        ids << bcp47(locale);
    std::sort(ids.begin(), ids.end());
    co_return ids;
}

QCoro::Task<void> TranscriberController::prepare(QString locale)
{
    const auto models = models_;  // this coroutine may outlive a replaced inventory, never the reverse
    const QStringList supported = co_await models->supportedLocales();
    const QString id = bcp47(locale);
    const bool known = std::any_of(supported.begin(), supported.end(), [&id](const QString& s) {
        return bcp47(s).compare(id, Qt::CaseInsensitive) == 0;
    });
    if (!known) {
        Diagnostics::log(QStringLiteral("transcriber: locale ") + id + QStringLiteral(" not in SpeechTranscriber.supportedLocales (")
                         + QString::number(supported.size()) + QStringLiteral(" locales known)"));
        throw TranscribeError::unsupportedLocale(id);
    }

    const ModelStatus status = co_await models->status(id);
    Diagnostics::log(QStringLiteral("transcriber: AssetInventory status = ") + modelStatusName(status));
    if (status != ModelStatus::installed) {
        Diagnostics::log(QStringLiteral("transcriber: requesting model installation for ") + id + QStringLiteral("…"));
        const std::optional<ModelSource> request = co_await models->installationRequest(id);
        if (!request) {
            Diagnostics::log(
                QStringLiteral("transcriber: assetInstallationRequest returned nil (already installed or unsupported)"));
        } else {
            co_await models->downloadAndInstall(*request);
            Diagnostics::log(QStringLiteral("transcriber: model install complete."));
        }
    }

    // Loading the model is this engine's preparation; its preferred format comes with it.
    const std::shared_ptr<SpeechEngine> engine = co_await models->loadEngine(id);
    const std::optional<AudioFormat> format = engine->bestAvailableAudioFormat();

    engine_ = engine;
    analyzerFormat_ = format;
    preparedLocale_ = id;
    if (format) {
        // Samples are always 32-bit float (common format 1).
        Diagnostics::log(QStringLiteral("transcriber: analyzer wants ") + SpeechFormat::rate(format->sampleRate)
                         + QStringLiteral("Hz / ") + QString::number(format->channelCount)
                         + QStringLiteral("ch / commonFormat=1 / interleaved=")
                         + interleavedText(*format));
    } else {
        Diagnostics::log(QStringLiteral("transcriber: bestAvailableAudioFormat returned nil"));
    }
}

QCoro::Task<void> TranscriberController::start()
{
    if (!preparedLocale_ || !engine_)
        throw TranscribeError::notPrepared();

    auto results = std::make_shared<SpeechResultStream>();
    transcriber_ = results;
    {
        std::lock_guard guard(lock_);
        finalText_.clear();
        partialText_.clear();
    }
    auto stream = std::make_shared<AnalyzerInputStream>();
    setContinuation(std::make_shared<AnalyzerInputStream::Continuation>(stream));

    // The speech server, when chosen, is asked afresh each dictation; the loaded engine stands by
    // for it. Replacing an abandoned session's analyzer stops it; its results loop then ends by itself.
    std::shared_ptr<SpeechEngine> engine = engine_;
    if (Preferences::shared().speechEngine() == SpeechEngineKind::server)
        engine = std::make_shared<ServerSpeechEngine>(ServerSpeechEngine::Config::fromPreferences(*preparedLocale_), engine_);
    std::shared_ptr<SpeechAnalyzer> analyzer = engine->makeAnalyzer(results);
    analyzer_ = analyzer;

    if (analyzerFormat_) {
        try {
            analyzer->prepareToAnalyze(*analyzerFormat_);
            Diagnostics::log(QStringLiteral("transcriber: prepareToAnalyze(in:) succeeded"));
        } catch (const std::exception& e) {
            Diagnostics::log(QStringLiteral("transcriber: prepareToAnalyze threw: ") + describe(e));
            throw;
        }
    }
    analyzer->start(stream);
    Diagnostics::log(QStringLiteral("transcriber: analyzer started."));

    resultsTask_ = std::make_shared<QFuture<void>>(Background::start([this, results] { runResultsLoop(results); }));
    co_return;
}

void TranscriberController::runResultsLoop(std::shared_ptr<SpeechResultStream> results)
{
    for (;;) {
        const SpeechResultStream::Next next = results->next();
        if (next.event == SpeechResultStream::Event::result) {
            QString committed;
            QString volatileText;
            {
                std::lock_guard guard(lock_);
                if (next.result.isFinal) {
                    if (!finalText_.isEmpty())
                        finalText_ += QLatin1Char(' ');
                    finalText_ += next.result.text;
                    partialText_.clear();
                } else {
                    partialText_ = next.result.text;
                    volatileText = next.result.text;
                }
                committed = finalText_;
            }
            if (onPartial)
                onPartial(committed, volatileText);
            continue;
        }
        if (next.event == SpeechResultStream::Event::failed)
            Diagnostics::log(QStringLiteral("transcriber: results stream error: ") + next.error);
        return;  // ended, failed or cancelled
    }
}

void TranscriberController::closeInput()
{
    if (const auto continuation = inputContinuation()) {
        static_cast<AnalyzerInputStream::Continuation*>(continuation.get())->finish();
        setContinuation(nullptr);
    }
}

QCoro::Task<void> TranscriberController::awaitResultsLoop()
{
    const std::shared_ptr<QFuture<void>> task = resultsTask_;
    if (task) {
        const QCoro::Task<void> ending = Background::finished(*task);
        co_await ending;
        if (resultsTask_ == task) {
            resultsTask_.reset();
            transcriber_.reset();
        }
    }
}

// GCC 12 destroys temporaries of a co_await expression twice and mishandles variables declared
// in conditions, so the coroutines below name their closures, tasks and shared pointers first.
QCoro::Task<QString> TranscriberController::finish()
{
    closeInput();
    const std::shared_ptr<SpeechAnalyzer> analyzer = analyzer_;
    if (analyzer) {
        const QCoro::Task<void> finalizing = Background::run([analyzer] { analyzer->finalizeAndFinishThroughEndOfInput(); });
        try {
            co_await finalizing;
        } catch (const std::exception& e) {
            Diagnostics::log(QStringLiteral("transcriber: finalize warning: ") + describe(e));
        }
        answeredBy_ = analyzer->answeredBy();
        if (analyzer_ == analyzer)
            analyzer_.reset();
    }
    co_await awaitResultsLoop();
    QStringList parts;
    {
        std::lock_guard guard(lock_);
        if (!finalText_.isEmpty())
            parts << finalText_;
        if (!partialText_.isEmpty())
            parts << partialText_;
    }
    co_return parts.join(QLatin1Char(' ')).trimmed();
}

QCoro::Task<void> TranscriberController::cancel()
{
    closeInput();
    if (resultsTask_ && transcriber_)
        transcriber_->cancel();
    const std::shared_ptr<SpeechAnalyzer> analyzer = analyzer_;
    if (analyzer) {
        const QCoro::Task<void> cancelling = Background::run([analyzer] { analyzer->cancelAndFinishNow(); });
        co_await cancelling;
        if (analyzer_ == analyzer)
            analyzer_.reset();
    }
    co_await awaitResultsLoop();
    std::lock_guard guard(lock_);
    finalText_.clear();
    partialText_.clear();
}
