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

namespace {

// Models and engine in one: its analyzers say the script, one result per buffer and the rest when
// finalized, and note the first sample of every buffer heard, in arrival order.
// (QCoro 0.8 moves from a non-const lvalue named in co_return, so members are returned as copies.)
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
    std::mutex mutex;
    QList<float> heard;
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

using Pairs = QList<QPair<QString, QString>>;

struct Rig {
    std::shared_ptr<ScriptedModels> models = std::make_shared<ScriptedModels>();
    TranscriberController controller{models};
    std::mutex mutex;
    Pairs partials;

    Rig()
    {
        controller.onPartial = [this](QString committed, QString volatileText) {
            std::lock_guard lock(mutex);
            partials << qMakePair(committed, volatileText);
        };
    }
    Pairs takePartials()
    {
        std::lock_guard lock(mutex);
        return std::exchange(partials, {});
    }
    // Starts a session and yields buffers numbered from 0 on a thread of their own, as capture does.
    void start(std::vector<SpeechResult> script, int buffers)
    {
        models->script = std::move(script);
        await(controller.start());
        std::thread([input = controller.inputContinuation(), buffers] {
            for (int i = 0; i < buffers; ++i)
                input->yield(AudioBuffer{{16000, 1}, std::vector<float>(8, float(i))});
        }).join();
    }
    QString session(std::vector<SpeechResult> script, int buffers)
    {
        start(std::move(script), buffers);
        return await(controller.finish());
    }
};

SpeechResult partial(const char* t) { return {QString::fromUtf8(t), false}; }
SpeechResult final(const char* t) { return {QString::fromUtf8(t), true}; }
QPair<QString, QString> pair(const char* c, const char* v) { return {QString::fromUtf8(c), QString::fromUtf8(v)}; }

// What an awaited operation threw; the transcriber's own errors are marked with their kind.
QString thrown(QCoro::Task<void> task)
{
    try {
        await(std::move(task));
    } catch (const TranscribeError& e) {
        return (e.kind() == TranscribeError::Kind::notPrepared ? "not prepared: " : "unsupported: ") + e.errorDescription();
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return {};
}

}  // namespace

class TranscriberControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
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
        Rig rig;
        await(rig.controller.prepare(QStringLiteral("en-US")));
        rig.models->decodeFailure = failure;
        TestSupport::LogMark mark;
        QCOMPARE(rig.session(script, buffers), text);
        QCOMPARE(rig.takePartials(), expected);
        QVERIFY(!rig.controller.inputContinuation());
        // Every buffer arrived, in order, up to the one the decoder failed on.
        QList<float> heard(failure.isEmpty() ? buffers : qsizetype(script.size()) + 1);
        std::iota(heard.begin(), heard.end(), 0.0f);
        QCOMPARE(rig.models->heard, heard);
        QCOMPARE(mark.messages().contains("transcriber: results stream error: " + failure), !failure.isEmpty());

        // Finishing again returns the same text; cancelling forgets it; the next session starts from nothing.
        QCOMPARE(await(rig.controller.finish()), text);
        await(rig.controller.cancel());
        QCOMPARE(await(rig.controller.finish()), QString());
        rig.models->decodeFailure.clear();
        QCOMPARE(rig.session({final("again")}, 1), QStringLiteral("again"));
        QCOMPARE(rig.takePartials(), Pairs{pair("again", "")});
    }

    void preparationInstallsMissingModelsAndAFailureChangesNothing()
    {
        Rig rig;
        QCOMPARE(await(rig.controller.finish()), QString());
        QCOMPARE(thrown(rig.controller.start()), QStringLiteral("not prepared: Transcriber not prepared. Call prepare() first."));
        QVERIFY(!rig.controller.inputContinuation());

        rig.models->modelStatus = ModelStatus::supported;
        rig.models->request = ModelSource{"de-DE", "http://127.0.0.1:1/de.tar.gz", QString(64, QLatin1Char('0'))};
        await(rig.controller.prepare(QStringLiteral("DE_de")));
        // Languages match ignoring case; the requested identifier is kept, not the list's spelling.
        QCOMPARE(rig.models->installed, QStringList{"de-DE"});
        QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>("DE-de"));
        QCOMPARE(rig.controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));

        QCOMPARE(thrown(rig.controller.prepare(QStringLiteral("fr-FR"))),
                 QStringLiteral("unsupported: Locale fr-FR is not supported by the on-device SpeechTranscriber."));
        rig.models->installFailure = QStringLiteral("download broke");
        QCOMPARE(thrown(rig.controller.prepare(QStringLiteral("en-US"))), rig.models->installFailure);  // passed on unchanged
        QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>("DE-de"));

        // Cancelled midway, a session leaves no text and the next one works as usual.
        rig.start({final("one"), final("two"), final("three")}, 1);
        QVERIFY(TestSupport::waitUntil([&] { return !rig.takePartials().isEmpty(); }));
        await(rig.controller.cancel());
        QVERIFY(!rig.controller.inputContinuation());
        QCOMPARE(await(rig.controller.finish()), QString());
        QCOMPARE(rig.session({final("still here")}, 1), QStringLiteral("still here"));

        rig.models->modelStatus = ModelStatus::installed;
        await(rig.controller.prepare(QStringLiteral("en-us")));
        QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>("en-us"));
        QCOMPARE(rig.models->installed.size(), 2);  // an installed model is not fetched again
    }
};

QTEST_GUILESS_MAIN(TranscriberControllerTest)
#include "TranscriberControllerTest.moc"
