#include "SpeechTestSupport.h"

#include "speech/AbstractModelInventory.h"
#include "speech/AnalyzerInputStream.h"
#include "speech/DecodingAnalyzer.h"
#include "speech/SpeechResultStream.h"
#include "speech/TranscriberController.h"

#include <QTest>

#include <mutex>
#include <thread>

using SpeechTest::await;

namespace {

// Delivers its script one result per buffer received and the rest when finalized; remembers the
// first sample of every buffer, in arrival order.
class ScriptedAnalyzer final : public DecodingAnalyzer {
public:
    ScriptedAnalyzer(std::shared_ptr<SpeechResultStream> results, std::vector<SpeechResult> script, QString decodeFailure,
                     std::vector<float>& seen, std::mutex& seenMutex)
        : DecodingAnalyzer(std::move(results), AudioFormat{16000, 1}), script_(std::move(script)),
          decodeFailure_(std::move(decodeFailure)), seen_(seen), seenMutex_(seenMutex)
    {
    }
    ~ScriptedAnalyzer() override { stopDecoding(); }

protected:
    void decode(const AudioBuffer& buffer) override
    {
        {
            std::lock_guard lock(seenMutex_);
            seen_.push_back(buffer.samples.empty() ? -1.0f : buffer.samples.front());
        }
        if (next_ < script_.size()) {
            emitResult(script_[next_].text, script_[next_].isFinal);
            ++next_;
        } else if (!decodeFailure_.isEmpty()) {
            throw CollaboratorError(decodeFailure_);
        }
    }
    void finalizeDecoding() override
    {
        for (; next_ < script_.size(); ++next_)
            emitResult(script_[next_].text, script_[next_].isFinal);
    }

private:
    std::vector<SpeechResult> script_;
    size_t next_ = 0;
    QString decodeFailure_;
    std::vector<float>& seen_;
    std::mutex& seenMutex_;
};

class ScriptedEngine final : public SpeechEngine {
public:
    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return format; }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override
    {
        return std::make_unique<ScriptedAnalyzer>(std::move(results), script, decodeFailure, seen, seenMutex);
    }
    std::optional<AudioFormat> format = AudioFormat{16000, 1};
    std::vector<SpeechResult> script;
    QString decodeFailure;
    std::vector<float> seen;
    std::mutex seenMutex;
};

// QCoro 0.8 moves from a non-const lvalue named in co_return, so members are returned as copies.
class FakeInventory final : public AbstractModelInventory {
public:
    QCoro::Task<QStringList> supportedLocales() override { co_return QStringList(locales); }
    QCoro::Task<ModelStatus> status(QString) override { co_return modelStatus; }
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString) override { co_return std::optional<ModelSource>(request); }
    QCoro::Task<void> downloadAndInstall(ModelSource source) override
    {
        installed << source.locale;
        if (!installFailure.isEmpty())
            throw CollaboratorError(installFailure);
        co_return;
    }
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) override
    {
        loaded << locale;
        co_return std::shared_ptr<SpeechEngine>(engine);
    }

    QStringList locales{QStringLiteral("en-US"), QStringLiteral("de-DE")};
    ModelStatus modelStatus = ModelStatus::installed;
    std::optional<ModelSource> request;
    QString installFailure;
    QStringList installed, loaded;
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
    void callsWithoutASession();
    void cancelDropsTheSessionAndItsText();
    void preparationLogsAndPublishesTheFormat();
    void preparationInstallsMissingModels();
    void localeMatchingIgnoresCase();
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

void TranscriberControllerTest::callsWithoutASession()
{
    Rig rig;
    QCOMPARE(await(rig.controller.finish()), QString());
    await(rig.controller.cancel());
    try {
        await(rig.controller.start());
        QFAIL("started unprepared");
    } catch (const TranscribeError& e) {
        QCOMPARE(e.kind(), TranscribeError::Kind::notPrepared);
        QCOMPARE(e.errorDescription(), QStringLiteral("Transcriber not prepared. Call prepare() first."));
    }
    QVERIFY(!rig.controller.inputContinuation());

    await(rig.controller.prepare(QStringLiteral("en-US")));
    QCOMPARE(rig.session({final("this is"), partial("kept")}, 2), QStringLiteral("this is kept"));
    // Finishing again returns what the last session left; cancelling forgets it.
    QCOMPARE(await(rig.controller.finish()), QStringLiteral("this is kept"));
    await(rig.controller.cancel());
    QCOMPARE(await(rig.controller.finish()), QString());
}

void TranscriberControllerTest::cancelDropsTheSessionAndItsText()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    rig.models->engine->script = {final("one"), final("two"), final("three")};
    await(rig.controller.start());
    rig.feed(1);
    QVERIFY(TestSupport::waitUntil([&] { return !rig.takePartials().isEmpty(); }));
    await(rig.controller.cancel());
    QVERIFY(!rig.controller.inputContinuation());
    QCOMPARE(await(rig.controller.finish()), QString());
    // A session after a cancelled one works as usual.
    QCOMPARE(rig.session({final("fresh")}, 1), QStringLiteral("fresh"));
}

void TranscriberControllerTest::preparationLogsAndPublishesTheFormat()
{
    Rig rig;
    TestSupport::LogMark mark;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    QCOMPARE(rig.controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));
    QCOMPARE(mark.messages(), QStringList({QStringLiteral("transcriber: AssetInventory status = installed"),
                                           QStringLiteral("transcriber: analyzer wants 16000.0Hz / 1ch / commonFormat=1 / interleaved=false")}));

    TestSupport::LogMark startMark;
    await(rig.controller.start());
    QCOMPARE(startMark.messages(), QStringList({QStringLiteral("transcriber: prepareToAnalyze(in:) succeeded"),
                                                QStringLiteral("transcriber: analyzer started.")}));
    await(rig.controller.cancel());

    // An engine without a preference: logged, and start() skips the format check.
    rig.models->engine->format = std::nullopt;
    TestSupport::LogMark noFormat;
    await(rig.controller.prepare(QStringLiteral("de-DE")));
    QCOMPARE(rig.controller.analyzerFormat(), std::nullopt);
    QVERIFY(noFormat.messages().contains(QStringLiteral("transcriber: bestAvailableAudioFormat returned nil")));
    TestSupport::LogMark noCheck;
    await(rig.controller.start());
    QCOMPARE(noCheck.messages(), QStringList({QStringLiteral("transcriber: analyzer started.")}));
    await(rig.controller.cancel());
}

void TranscriberControllerTest::preparationInstallsMissingModels()
{
    Rig rig;
    rig.models->modelStatus = ModelStatus::supported;
    rig.models->request = ModelSource{QStringLiteral("de-DE"), QStringLiteral("http://127.0.0.1:1/de.tar.gz"), QString(64, QLatin1Char('0'))};
    TestSupport::LogMark mark;
    await(rig.controller.prepare(QStringLiteral("de-de")));
    QCOMPARE(rig.models->installed, QStringList{QStringLiteral("de-DE")});
    QCOMPARE(mark.messages(), QStringList({QStringLiteral("transcriber: AssetInventory status = supported"),
                                           QStringLiteral("transcriber: requesting model installation for de-de…"),
                                           QStringLiteral("transcriber: model install complete."),
                                           QStringLiteral("transcriber: analyzer wants 16000.0Hz / 1ch / commonFormat=1 / interleaved=false")}));

    // Nothing to install: logged, and preparation goes on.
    rig.models->request = std::nullopt;
    TestSupport::LogMark nilMark;
    await(rig.controller.prepare(QStringLiteral("en-US")));
    QVERIFY(nilMark.messages().contains(
        QStringLiteral("transcriber: assetInstallationRequest returned nil (already installed or unsupported)")));
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));
}

void TranscriberControllerTest::localeMatchingIgnoresCase()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-us")));
    // The requested identifier is kept, not the list's spelling.
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-us")));
    await(rig.controller.prepare(QStringLiteral("DE_de")));
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("DE-de")));

    rig.models->locales = {QStringLiteral("fr-FR"), QStringLiteral("de-DE"), QStringLiteral("en-US")};
    QCOMPARE(await(TranscriberController::supportedLocaleIdentifiers(*rig.models)),
             QStringList({QStringLiteral("de-DE"), QStringLiteral("en-US"), QStringLiteral("fr-FR")}));
}

void TranscriberControllerTest::failedRepreparationKeepsThePreviousLanguage()
{
    Rig rig;
    await(rig.controller.prepare(QStringLiteral("en-US")));

    TestSupport::LogMark mark;
    try {
        await(rig.controller.prepare(QStringLiteral("fr-FR")));
        QFAIL("an unsupported language was accepted");
    } catch (const TranscribeError& e) {
        QCOMPARE(e.kind(), TranscribeError::Kind::unsupportedLocale);
        QCOMPARE(e.identifier(), QStringLiteral("fr-FR"));
        QCOMPARE(e.errorDescription(), QStringLiteral("Locale fr-FR is not supported by the on-device SpeechTranscriber."));
    }
    QCOMPARE(mark.messages(),
             QStringList{QStringLiteral("transcriber: locale fr-FR not in SpeechTranscriber.supportedLocales (2 locales known)")});
    QCOMPARE(rig.controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));
    QCOMPARE(rig.controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));

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
    const QStringList lines = mark.messages();
    QVERIFY(lines.contains(QStringLiteral("transcriber: finalize warning: decoder exploded")));
    QVERIFY(lines.contains(QStringLiteral("transcriber: results stream error: decoder exploded")));
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
    // Yields after the end are dropped.
    input->yield(AudioBuffer{{16000, 1}, std::vector<float>(8, -5.0f)});

    std::lock_guard lock(rig.models->engine->seenMutex);
    const std::vector<float>& seen = rig.models->engine->seen;
    QCOMPARE(seen.size(), size_t(count));
    for (int i = 0; i < count; ++i)
        QCOMPARE(seen[static_cast<size_t>(i)], static_cast<float>(i));
}

QTEST_GUILESS_MAIN(TranscriberControllerTest)
#include "TranscriberControllerTest.moc"
