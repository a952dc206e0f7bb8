#include "support/TestSupport.h"

#include "speech/AbstractModelInventory.h"
#include "speech/DecodingAnalyzer.h"
#include "speech/SpeechResultStream.h"
#include "speech/TranscriberController.h"

#include <QTest>

#include <mutex>
#include <numeric>
#include <thread>

using TestSupport::await;
using Pairs = QList<QPair<QString, QString>>;

namespace {

// Models and engine in one, whose analyzers say the script: one result per buffer, the rest when
// finalized. (QCoro 0.8 moves from a non-const lvalue named in co_return: members go out as copies.)
class ScriptedModels final : public AbstractModelInventory, public SpeechEngine, public std::enable_shared_from_this<ScriptedModels> {
public:
    QCoro::Task<QStringList> supportedLocales() override { co_return QStringList{"en-US", "de-DE"}; }
    QCoro::Task<ModelStatus> status(QString) override { co_return modelStatus; }
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString) override { co_return std::optional<ModelSource>(request); }
    QCoro::Task<void> downloadAndInstall(ModelSource source) override
    {
        installed << source.locale;
        if (!installFailure.isEmpty())
            throw CollaboratorError(installFailure);
        co_return;
    }
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString) override { co_return std::shared_ptr<SpeechEngine>(shared_from_this()); }
    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return AudioFormat{16000, 1}; }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override;

    ModelStatus modelStatus = ModelStatus::installed;
    std::optional<ModelSource> request;
    QString installFailure;
    QStringList installed;
    std::vector<SpeechResult> script;
    QString decodeFailure;  // thrown by every buffer past the script
    std::mutex mutex;       // for what the decoding and results threads write:
    QList<float> heard;     // the first sample of every buffer decoded
    Pairs partials;         // what onPartial reported

    Pairs takePartials()
    {
        std::lock_guard lock(mutex);
        return std::exchange(partials, {});
    }
};

class ScriptedAnalyzer final : public DecodingAnalyzer {
public:
    ScriptedAnalyzer(std::shared_ptr<SpeechResultStream> results, ScriptedModels& models)
        : DecodingAnalyzer(std::move(results), AudioFormat{16000, 1}), models_(models)
    {
    }
    ~ScriptedAnalyzer() override { stopDecoding(); }

protected:
    void decode(const AudioBuffer& buffer) override
    {
        {
            std::lock_guard lock(models_.mutex);
            models_.heard << buffer.samples.front();
        }
        if (next_ < models_.script.size())
            say();
        else if (!models_.decodeFailure.isEmpty())
            throw CollaboratorError(models_.decodeFailure);
    }
    void finalizeDecoding() override
    {
        while (next_ < models_.script.size())
            say();
    }

private:
    void say()
    {
        const SpeechResult& result = models_.script[next_++];
        emitResult(result.text, result.isFinal);
    }
    ScriptedModels& models_;
    size_t next_ = 0;
};

std::unique_ptr<SpeechAnalyzer> ScriptedModels::makeAnalyzer(std::shared_ptr<SpeechResultStream> results)
{
    return std::make_unique<ScriptedAnalyzer>(std::move(results), *this);
}

SpeechResult partial(const char* t) { return {QString::fromUtf8(t), false}; }
SpeechResult final(const char* t) { return {QString::fromUtf8(t), true}; }
QPair<QString, QString> pair(const char* c, const char* v) { return {QString::fromUtf8(c), QString::fromUtf8(v)}; }

QString thrown(QCoro::Task<void> task)
{
    try {
        await(std::move(task));
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return {};
}

}  // namespace

class TranscriberControllerTest : public QObject {
    Q_OBJECT
    std::shared_ptr<ScriptedModels> models_;
    std::unique_ptr<TranscriberController> controller_;

    // Starts a session and yields buffers numbered from 0 on a thread of their own, as capture does.
    void start(std::vector<SpeechResult> script, int buffers)
    {
        models_->script = std::move(script);
        await(controller_->start());
        std::thread([input = controller_->inputContinuation(), buffers] {
            for (int i = 0; i < buffers; ++i)
                input->yield(AudioBuffer{{16000, 1}, std::vector<float>(8, float(i))});
        }).join();
    }
    QString session(std::vector<SpeechResult> script, int buffers)
    {
        start(std::move(script), buffers);
        return await(controller_->finish());
    }

private Q_SLOTS:
    void init()
    {
        models_ = std::make_shared<ScriptedModels>();
        controller_ = std::make_unique<TranscriberController>(models_);
        controller_->onPartial = [m = models_.get()](QString committed, QString volatileText) {
            std::lock_guard lock(m->mutex);
            m->partials << qMakePair(committed, volatileText);
        };
    }

    void resultsBecomeCommittedAndVolatileTexts_data()
    {
        QTest::addColumn<std::vector<SpeechResult>>("script");
        QTest::addColumn<int>("buffers");
        QTest::addColumn<QString>("failure");
        QTest::addColumn<Pairs>("expected");
        QTest::addColumn<QString>("text");
        QTest::newRow("as audio arrives")
            << std::vector{partial("hello"), partial("hello wor"), final("hello world"), partial("how"), final("how are you")} << 5 << QString()
            << Pairs{pair("", "hello"), pair("", "hello wor"), pair("hello world", ""), pair("hello world", "how"), pair("hello world how are you", "")}
            << "hello world how are you";
        QTest::newRow("at finalize, volatile remainder kept") << std::vector{final("this is"), partial("testing one")} << 0 << QString()
                                                              << Pairs{pair("this is", ""), pair("this is", "testing one")} << "this is testing one";
        QTest::newRow("no results, much audio") << std::vector<SpeechResult>{} << 5000 << QString() << Pairs{} << QString();
        QTest::newRow("empty final still separates") << std::vector{final("hello"), final(""), final("world")} << 3 << QString()
                                                     << Pairs{pair("hello", ""), pair("hello ", ""), pair("hello  world", "")} << "hello  world";
        QTest::newRow("ends trimmed") << std::vector{final(" padded "), partial("\nnext\n")} << 2 << QString()
                                      << Pairs{pair(" padded ", ""), pair(" padded ", "\nnext\n")} << "padded  \nnext";
        QTest::newRow("decoder fails, text kept") << std::vector{final("so far"), partial("good")} << 5 << "decoder exploded"
                                                  << Pairs{pair("so far", ""), pair("so far", "good")} << "so far good";
    }
    void resultsBecomeCommittedAndVolatileTexts()
    {
        QFETCH(std::vector<SpeechResult>, script);
        QFETCH(int, buffers);
        QFETCH(QString, failure);
        QFETCH(Pairs, expected);
        QFETCH(QString, text);
        await(controller_->prepare(QStringLiteral("en-US")));
        models_->decodeFailure = failure;
        TestSupport::LogMark mark;
        QCOMPARE(session(script, buffers), text);
        QCOMPARE(models_->takePartials(), expected);
        QVERIFY(!controller_->inputContinuation());
        // Every buffer arrived, in order, up to the one the decoder failed on.
        QList<float> heard(failure.isEmpty() ? buffers : qsizetype(script.size()) + 1);
        std::iota(heard.begin(), heard.end(), 0.0f);
        QCOMPARE(models_->heard, heard);
        QCOMPARE(mark.messages().contains("transcriber: results stream error: " + failure), !failure.isEmpty());

        // Finishing again returns the same text; cancelling forgets it; the next session starts from nothing.
        QCOMPARE(await(controller_->finish()), text);
        await(controller_->cancel());
        QCOMPARE(await(controller_->finish()), QString());
        models_->decodeFailure.clear();
        QCOMPARE(session({final("again")}, 1), QStringLiteral("again"));
        QCOMPARE(models_->takePartials(), Pairs{pair("again", "")});
    }

    void preparationInstallsMissingModelsAndAFailureChangesNothing()
    {
        QCOMPARE(await(controller_->finish()), QString());
        QCOMPARE(thrown(controller_->start()), QStringLiteral("Transcriber not prepared. Call prepare() first."));
        QVERIFY(!controller_->inputContinuation());

        models_->modelStatus = ModelStatus::supported;
        models_->request = ModelSource{"de-DE", "http://127.0.0.1:1/de.tar.gz", QString(64, QLatin1Char('0'))};
        await(controller_->prepare(QStringLiteral("DE_de")));
        // Languages match ignoring case; the requested identifier is kept, not the list's spelling.
        QCOMPARE(models_->installed, QStringList{"de-DE"});
        QCOMPARE(controller_->preparedLocale(), std::optional<QString>("DE-de"));
        QCOMPARE(controller_->analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));

        QCOMPARE(thrown(controller_->prepare(QStringLiteral("fr-FR"))), QStringLiteral("Locale fr-FR is not supported by the on-device SpeechTranscriber."));
        models_->installFailure = QStringLiteral("download broke");
        QCOMPARE(thrown(controller_->prepare(QStringLiteral("en-US"))), models_->installFailure);  // passed on unchanged
        QCOMPARE(controller_->preparedLocale(), std::optional<QString>("DE-de"));

        // Cancelled midway, a session leaves no text and the next one works as usual.
        start({final("one"), final("two"), final("three")}, 1);
        QVERIFY(TestSupport::waitUntil([&] { return !models_->takePartials().isEmpty(); }));
        await(controller_->cancel());
        QVERIFY(!controller_->inputContinuation());
        QCOMPARE(await(controller_->finish()), QString());
        QCOMPARE(session({final("still here")}, 1), QStringLiteral("still here"));

        models_->modelStatus = ModelStatus::installed;
        await(controller_->prepare(QStringLiteral("en-us")));
        QCOMPARE(controller_->preparedLocale(), std::optional<QString>("en-us"));
        QCOMPARE(models_->installed.size(), 2);  // an installed model is not fetched again
    }
};

QTEST_GUILESS_MAIN(TranscriberControllerTest)
#include "TranscriberControllerTest.moc"
