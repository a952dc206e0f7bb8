#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/AbstractModelInventory.h"
#include "speech/AnalyzerInputStream.h"
#include "speech/DecodingAnalyzer.h"
#include "speech/SpeechResultStream.h"
#include "speech/TranscriberController.h"

#include <QTest>

#include <mutex>
#include <numeric>
#include <thread>

using TestSupport::await;

namespace {

class ScriptedEngine;

// Delivers the engine's script one result per buffer received and the rest when finalized; records
// the first sample of every buffer, in arrival order.
class ScriptedAnalyzer final : public DecodingAnalyzer {
public:
    ScriptedAnalyzer(std::shared_ptr<SpeechResultStream> results, ScriptedEngine& engine)
        : DecodingAnalyzer(std::move(results), AudioFormat{16000, 1}), engine_(engine)
    {
    }
    ~ScriptedAnalyzer() override { stopDecoding(); }

protected:
    void decode(const AudioBuffer& buffer) override;
    void finalizeDecoding() override;

private:
    ScriptedEngine& engine_;
    size_t next_ = 0;
};

class ScriptedEngine final : public SpeechEngine {
public:
    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return format; }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override
    {
        return std::make_unique<ScriptedAnalyzer>(std::move(results), *this);
    }
    std::optional<AudioFormat> format = AudioFormat{16000, 1};
    std::vector<SpeechResult> script;  // read once a session has started
    QString decodeFailure;             // thrown by every buffer past the script
    std::vector<float> seen;
    std::mutex seenMutex;
};

void ScriptedAnalyzer::decode(const AudioBuffer& buffer)
{
    {
        std::lock_guard lock(engine_.seenMutex);
        engine_.seen.push_back(buffer.samples.empty() ? -1.0f : buffer.samples.front());
    }
    if (next_ < engine_.script.size()) {
        emitResult(engine_.script[next_].text, engine_.script[next_].isFinal);
        ++next_;
    } else if (!engine_.decodeFailure.isEmpty()) {
        throw CollaboratorError(engine_.decodeFailure);
    }
}

void ScriptedAnalyzer::finalizeDecoding()
{
    for (; next_ < engine_.script.size(); ++next_)
        emitResult(engine_.script[next_].text, engine_.script[next_].isFinal);
}

// QCoro 0.8 moves from a non-const lvalue named in co_return, so members are returned as copies.
class FakeInventory final : public AbstractModelInventory {
public:
    QCoro::Task<QStringList> supportedLocales() override { co_return QStringList{QStringLiteral("en-US"), QStringLiteral("de-DE")}; }
    QCoro::Task<ModelStatus> status(QString) override { co_return modelStatus; }
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString) override { co_return std::optional<ModelSource>(request); }
    QCoro::Task<void> downloadAndInstall(ModelSource source) override
    {
        installed << source.locale;
        if (!installFailure.isEmpty())
            throw CollaboratorError(installFailure);
        co_return;
    }
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString) override { co_return std::shared_ptr<SpeechEngine>(engine); }

    ModelStatus modelStatus = ModelStatus::installed;
    std::optional<ModelSource> request;
    QString installFailure;
    QStringList installed;
    std::shared_ptr<ScriptedEngine> engine = std::make_shared<ScriptedEngine>();
};

using Pairs = QList<QPair<QString, QString>>;

struct Rig {
    std::shared_ptr<FakeInventory> models = std::make_shared<FakeInventory>();
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
        Pairs out;
        out.swap(partials);
        return out;
    }
    void feed(int buffers)
    {
        const auto input = controller.inputContinuation();
        QVERIFY(input);
        for (int i = 0; i < buffers; ++i)
            input->yield(AudioBuffer{{16000, 1}, std::vector<float>(160, static_cast<float>(i))});
    }
    // One whole session over the given script.
    QString session(std::vector<SpeechResult> script, int buffers)
    {
        models->engine->script = std::move(script);
        await(controller.start());
        feed(buffers);
        return await(controller.finish());
    }
};

SpeechResult partial(const char* t) { return {QString::fromUtf8(t), false}; }
SpeechResult final(const char* t) { return {QString::fromUtf8(t), true}; }
QPair<QString, QString> pair(const char* c, const char* v) { return {QString::fromUtf8(c), QString::fromUtf8(v)}; }

}  // namespace

class TranscriberControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void resultsBecomeCommittedAndVolatileTexts_data();
    void resultsBecomeCommittedAndVolatileTexts();
    void sessionsStartOnlyPreparedAndCancelForgetsTheText();
    void preparationMatchesLanguagesIgnoringCase();
    void failedRepreparationKeepsThePreviousLanguage();
    void decodingFailureKeepsTheTextGathered();
    void inputArrivesInOrderFromAnotherThread();
};

void TranscriberControllerTest::resultsBecomeCommittedAndVolatileTexts_data()
{
    QTest::addColumn<std::vector<SpeechResult>>("script");
    QTest::addColumn<int>("buffers");
    QTest::addColumn<Pairs>("expected");
    QTest::addColumn<QString>("text");

    const std::vector<SpeechResult> example{partial("hello"), partial("hello wor"), final("hello world"), partial("how"),
                                            final("how are you")};
    const Pairs examplePairs{pair("", "hello"), pair("", "hello wor"), pair("hello world", ""), pair("hello world", "how"),
                             pair("hello world how are you", "")};
    QTest::newRow("as audio arrives") << example << 5 << examplePairs << QStringLiteral("hello world how are you");
    QTest::newRow("at finalize") << example << 0 << examplePairs << QStringLiteral("hello world how are you");
    QTest::newRow("volatile remainder kept")
        << std::vector<SpeechResult>{final("this is"), partial("testing one")} << 2
        << Pairs{pair("this is", ""), pair("this is", "testing one")} << QStringLiteral("this is testing one");
    QTest::newRow("no results") << std::vector<SpeechResult>{} << 3 << Pairs{} << QString();
    QTest::newRow("empty final still separates")
        << std::vector<SpeechResult>{final("hello"), final(""), final("world")} << 3
        << Pairs{pair("hello", ""), pair("hello ", ""), pair("hello  world", "")} << QStringLiteral("hello  world");
    QTest::newRow("ends trimmed")
        << std::vector<SpeechResult>{final(" padded "), partial("\nnext\n")} << 2
        << Pairs{pair(" padded ", ""), pair(" padded ", "\nnext\n")} << QStringLiteral("padded  \nnext");
}

void TranscriberControllerTest::resultsBecomeCommittedAndVolatileTexts()
{
    QFETCH(std::vector<SpeechResult>, script);
    QFETCH(int, buffers);
    QFETCH(Pairs, expected);
    QFETCH(QString, text);

    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    QCOMPARE(rig.session(script, buffers), text);
    QCOMPARE(rig.takePartials(), expected);
    QVERIFY(!rig.controller.inputContinuation());

    // The next session starts from nothing.
    QCOMPARE(rig.session({final("again")}, 1), QStringLiteral("again"));
    QCOMPARE(rig.takePartials(), Pairs{pair("again", "")});
}

void TranscriberControllerTest::sessionsStartOnlyPreparedAndCancelForgetsTheText()
{
    Rig rig;
    QCOMPARE(await(rig.controller.finish()), QString());
    try {
        await(rig.controller.start());
        QFAIL("started unprepared");
    } catch (const TranscribeError& e) {
        QCOMPARE(e.kind(), TranscribeError::Kind::notPrepared);
    }
    QVERIFY(!rig.controller.inputContinuation());

    await(rig.controller.prepare(QStringLiteral("en-US")));
    QCOMPARE(rig.session({final("this is"), partial("kept")}, 2), QStringLiteral("this is kept"));
    // Finishing again returns what the last session left; cancelling forgets it.
    QCOMPARE(await(rig.controller.finish()), QStringLiteral("this is kept"));
    await(rig.controller.cancel());
    QCOMPARE(await(rig.controller.finish()), QString());

    // Cancelled midway, a session leaves no text and the next one works as usual.
    rig.models->engine->script = {final("one"), final("two"), final("three")};
    await(rig.controller.start());
    rig.feed(1);
    QVERIFY(TestSupport::waitUntil([&] { return !rig.takePartials().isEmpty(); }));
    await(rig.controller.cancel());
    QVERIFY(!rig.controller.inputContinuation());
    QCOMPARE(await(rig.controller.finish()), QString());
    QCOMPARE(rig.session({final("fresh")}, 1), QStringLiteral("fresh"));
}

void TranscriberControllerTest::preparationMatchesLanguagesIgnoringCase()
{
    Rig rig;
    rig.models->modelStatus = ModelStatus::supported;
    rig.models->request = ModelSource{QStringLiteral("de-DE"), QStringLiteral("http://127.0.0.1:1/de.tar.gz"), QString(64, QLatin1Char('0'))};
    await(rig.controller.prepare(QStringLiteral("DE_de")));
    // A missing model is installed first; the requested identifier is kept, not the list's spelling.
    QCOMPARE(rig.models->installed, QStringList{QStringLiteral("de-DE")});
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("DE-de")));
    QCOMPARE(rig.controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));
    await(rig.controller.prepare(QStringLiteral("en-us")));
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-us")));
}

void TranscriberControllerTest::failedRepreparationKeepsThePreviousLanguage()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    try {
        await(rig.controller.prepare(QStringLiteral("fr-FR")));
        QFAIL("an unsupported language was accepted");
    } catch (const TranscribeError& e) {
        QCOMPARE(e.kind(), TranscribeError::Kind::unsupportedLocale);
        QCOMPARE(e.errorDescription(), QStringLiteral("Locale fr-FR is not supported by the on-device SpeechTranscriber."));
    }
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));

    // A failed installation passes its error on unchanged and changes nothing either.
    rig.models->modelStatus = ModelStatus::supported;
    rig.models->request = ModelSource{QStringLiteral("de-DE"), QStringLiteral("/nowhere.tar.gz"), QString(64, QLatin1Char('0'))};
    rig.models->installFailure = QStringLiteral("download broke");
    rig.models->engine->format = AudioFormat{48000, 2};
    try {
        await(rig.controller.prepare(QStringLiteral("de-DE")));
        QFAIL("a failed installation was ignored");
    } catch (const TranscribeError&) {
        QFAIL("an installation failure was wrapped");
    } catch (const CollaboratorError& e) {
        QCOMPARE(e.localizedDescription(), QStringLiteral("download broke"));
    }
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));
    QCOMPARE(rig.controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));
    // ... and the prepared language still transcribes.
    QCOMPARE(rig.session({final("still here")}, 1), QStringLiteral("still here"));
}

void TranscriberControllerTest::decodingFailureKeepsTheTextGathered()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    rig.models->engine->decodeFailure = QStringLiteral("decoder exploded");
    TestSupport::LogMark mark;
    QCOMPARE(rig.session({final("so far"), partial("good")}, 5), QStringLiteral("so far good"));
    QVERIFY(mark.messages().contains(QStringLiteral("transcriber: results stream error: decoder exploded")));
}

void TranscriberControllerTest::inputArrivesInOrderFromAnotherThread()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    await(rig.controller.start());
    const auto input = rig.controller.inputContinuation();
    constexpr int count = 5000;
    std::thread audio([input] {
        for (int i = 0; i < count; ++i)
            input->yield(AudioBuffer{{16000, 1}, std::vector<float>(8, static_cast<float>(i))});
    });
    audio.join();
    await(rig.controller.finish());
    input->yield(AudioBuffer{{16000, 1}, std::vector<float>(8, -5.0f)});  // after the end: dropped

    std::lock_guard lock(rig.models->engine->seenMutex);
    std::vector<float> expected(count);
    std::iota(expected.begin(), expected.end(), 0.0f);
    QCOMPARE(rig.models->engine->seen, expected);
}

QTEST_GUILESS_MAIN(TranscriberControllerTest)
#include "TranscriberControllerTest.moc"
