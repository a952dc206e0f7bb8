// The transcriber on a scripted engine; synthesised speech through the installed pocketsphinx model;
// and dictionaries trimmed to what the language model knows.

#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/DecodingAnalyzer.h"
#include "speech/ModelInventory.h"
#include "speech/PocketsphinxEngine.h"
#include "speech/PronouncingDictionary.h"
#include "speech/SpeechResultStream.h"
#include "speech/TranscriberController.h"
#include "storage/Preferences.h"

#include <QDir>
#include <QTest>

#include <mutex>
#include <numeric>
#include <thread>

using namespace SpeechTest;
using TestSupport::await;
using TestSupport::thrown;
using TestSupport::writeFile;
using Pairs = QList<QPair<QString, QString>>;

namespace {

// Models and engine in one. Its analyzers say the script: one result per buffer, the rest when
// finalized; with settings, it loads the pocketsphinx model in `folder` instead.
// (QCoro 0.8 moves from a non-const lvalue named in co_return: members go out as copies.)
class TestModels final : public AbstractModelInventory, public SpeechEngine, public std::enable_shared_from_this<TestModels> {
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
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) override
    {
        std::shared_ptr<SpeechEngine> loaded = shared_from_this();
        if (settings)
            loaded = engine = PocketsphinxEngine::load(PocketsphinxEngine::Model::inFolder(folder, locale).value(), *settings);
        co_return loaded;
    }
    std::optional<AudioFormat> bestAvailableAudioFormat() const override { return AudioFormat{16000, 1}; }
    std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) override;

    ModelStatus modelStatus = ModelStatus::installed;
    std::optional<ModelSource> request;
    QString installFailure;
    QStringList installed;
    std::optional<PocketsphinxEngine::Settings> settings;
    QString folder = installedModel();
    std::shared_ptr<PocketsphinxEngine> engine;  // the last one loaded
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
    ScriptedAnalyzer(std::shared_ptr<SpeechResultStream> results, TestModels& models)
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
    QString answeredBy() const override { return QStringLiteral("the script"); }

private:
    void say()
    {
        const SpeechResult& result = models_.script[next_++];
        emitResult(result.text, result.isFinal);
    }
    TestModels& models_;
    size_t next_ = 0;
};

std::unique_ptr<SpeechAnalyzer> TestModels::makeAnalyzer(std::shared_ptr<SpeechResultStream> results)
{
    return std::make_unique<ScriptedAnalyzer>(std::move(results), *this);
}

SpeechResult partial(const char* t) { return {QString::fromUtf8(t), false}; }
SpeechResult final(const char* t) { return {QString::fromUtf8(t), true}; }
QPair<QString, QString> pair(const char* c, const char* v) { return {QString::fromUtf8(c), QString::fromUtf8(v)}; }

// Feeds samples in blocks of the size capture delivers after conversion.
void feed(TranscriberController& controller, const std::vector<float>& samples, AudioFormat format = {16000, 1})
{
    AudioTest::feed(*controller.inputContinuation(), samples, 341, format);
}

QString transcribe(TranscriberController& controller, const std::vector<float>& samples)
{
    await(controller.start());
    feed(controller, samples);
    return await(controller.finish());
}

// A file's dictionary entries, without the stamp line of a trimmed copy.
QByteArray entries(const QString& path)
{
    const QByteArray all = TestSupport::readFile(path);
    return all.startsWith("##") ? all.mid(all.indexOf('\n') + 1) : all;
}

}  // namespace

class SpeechRecognitionTest : public QObject {
    Q_OBJECT
    std::vector<float> first_, second_;  // synthesised once, the slow part
    std::shared_ptr<TestModels> models_;  // scripted, fresh for every test
    std::unique_ptr<TranscriberController> controller_;

    // Starts a scripted session and yields buffers numbered from 0 on a thread of their own, as capture does.
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
    void initTestCase()
    {
        first_ = synthesize(kFirst);
        second_ = synthesize(kSecond);
        QVERIFY2(!first_.empty() && !second_.empty(), "festival (text2wave with festvox-us-slt-hts) and sox are needed");
        QVERIFY2(!installedModel().isEmpty(), "pocketsphinx-en-us is needed");
    }

    void init()
    {
        models_ = std::make_shared<TestModels>();
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

        models_->modelStatus = ModelStatus::supported;
        models_->request = ModelSource{"de-DE", "http://127.0.0.1:1/de.tar.gz", QString(64, QLatin1Char('0'))};
        await(controller_->prepare(QStringLiteral("DE_de")));
        // Languages match ignoring case; the requested identifier is kept, not the list's spelling.
        QCOMPARE(models_->installed, QStringList{"de-DE"});
        QCOMPARE(controller_->preparedLocale(), std::optional<QString>("DE-de"));

        QCOMPARE(thrown(controller_->prepare(QStringLiteral("fr-FR"))),
                 QStringLiteral("Locale fr-FR is not supported by the on-device SpeechTranscriber."));
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

    void transcribesBySegmentsAndTheTrimmedDictionaryHearsWhatTheWholeOneHears()
    {
        TranscriberController controller;
        QStringList committed;  // read once finish() has ended the results thread
        controller.onPartial = [&](QString text, QString) { committed << text; };
        TestSupport::LogMark mark;
        Preferences::shared().setValue(Settings::speechSplitAfterMs, 2000);
        await(controller.prepare(QStringLiteral("en-us")));

        // Audio in another format is dropped and said so; the two sentences after it are heard. The
        // pause between them is too short for the voice-activity end, but the first is long enough
        // to be ended at a pause.
        await(controller.start());
        feed(controller, first_, {44100, 2});
        std::vector<float> audio(4800, 0.0f);
        for (const auto* sentence : {&first_, &second_}) {
            const std::vector<float> spoken = withoutSilence(*sentence);
            audio.insert(audio.end(), spoken.begin(), spoken.end());
            audio.insert(audio.end(), 2400, 0.0f);
        }
        feed(controller, audio);
        const QString text = await(controller.finish());
        QVERIFY2(wordsHeard(kFirst + ' ' + kSecond, text) >= 11, qPrintable(text));  // of 15
        QVERIFY(mark.messages().contains("transcriber: dropping audio in 44100.0Hz/2ch; the recognizer takes 16000.0Hz/1ch"));
        // No fallback to the whole dictionary, or the comparison below would prove nothing.
        QVERIFY2(mark.messages().filter("whole dictionary").isEmpty(), qPrintable(mark.messages().join('\n')));

        // The pause ended the first segment: its words were committed before the second's.
        const QString firstCommit = committed.value(committed.lastIndexOf(QString()) + 1);
        QVERIFY2(wordsHeard(kSecond, firstCommit) <= 1 && wordsHeard(kFirst, firstCommit) >= 5, qPrintable(firstCommit));

        models_->settings.emplace().trimDictionary = false;
        models_->settings->splitAfter = std::chrono::milliseconds(2000);
        await(controller_->prepare(QStringLiteral("en-US")));
        QCOMPARE(transcribe(*controller_, audio), text);
    }

    void wordsAfterAQuietRoomOrADictationCutShortAreHeardWhole()
    {
        // A quiet room's hiss, which the voice-activity detector now and then takes for speech.
        std::uint32_t state = 7;
        std::vector<float> room(2 * 16000);
        for (float& s : room)
            s = AudioTest::hiss(state) / 32768.0f;
        TranscriberController controller;
        await(controller.prepare(QStringLiteral("en-us")));
        // The first dictation thrown away as the user begins to speak, and one left behind when its
        // microphone would not start (the next start replaces it): neither may change how the next
        // words are heard.
        await(controller.start());
        feed(controller, first_);
        QTest::qWait(200);  // the decoder is in the middle of the words
        await(controller.cancel());
        await(controller.start());
        const QString after = transcribe(controller, second_);
        QVERIFY2(wordsHeard(kSecond, after) >= 6, qPrintable(after));
        // A dictation in which nothing is said, then one in which the user waits before speaking.
        QCOMPARE(transcribe(controller, room), QString());
        std::vector<float> audio = room;
        const std::vector<float> spoken = withoutSilence(first_);
        audio.insert(audio.end(), spoken.begin(), spoken.end());
        audio.insert(audio.end(), room.begin(), room.begin() + 4800);
        const QString text = transcribe(controller, audio);
        QVERIFY2(wordsHeard(kFirst, text) >= 8, qPrintable(text));  // of 10
    }

    void releasesAnUnusedModelAndLoadsItAgainWithoutLosingSpeech()
    {
        // The installed model, seen through a link that can be taken away and put back.
        const QString link = AudioTest::sandboxPath(QStringLiteral("linked-model"));
        QVERIFY(QFile::link(installedModel(), link));
        models_->folder = link;
        models_->settings.emplace().keepLoaded = std::chrono::milliseconds(200);
        TranscriberController& controller = *controller_;
        await(controller.prepare(QStringLiteral("en-US")));
        const std::shared_ptr<PocketsphinxEngine> engine = models_->engine;
        QVERIFY(engine->isLoaded());
        QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));

        // Gone while released, the model fails only the session that needed it.
        QVERIFY(QFile::remove(link));
        TestSupport::LogMark mark;
        QCOMPARE(transcribe(controller, first_), QString());
        QVERIFY2(mark.messages().contains("transcriber: results stream error: Could not load the speech model in " + link)
                     && mark.messages().contains("transcriber: loading the whole dictionary (cannot read " + link + "/cmudict-en-us.dict)"),
                 qPrintable(mark.messages().join('\n')));

        // Put back, it serves the next session: all of whose speech arrives before the decoding
        // thread has loaded the model, and which keeps the model while it outlasts the keep-alive.
        QVERIFY(QFile::link(installedModel(), link));
        await(controller.start());
        feed(controller, first_);
        QVERIFY(TestSupport::waitUntil([&] { return engine->isLoaded(); }, 10000));
        QTest::qWait(400);
        QVERIFY(engine->isLoaded());
        const QString text = await(controller.finish());
        QVERIFY2(wordsHeard(kFirst, text) >= 7, qPrintable(text));  // of 10
        QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));
    }

    void keepsEveryPronunciationOfKnownWordsOnly()
    {
        const QByteArray dictionary = "## a comment\n'bout B AW T\nread R IY D\nread(2) R EH D\nreader R IY D ER\n\nRead R IY D\n"
                                      ";; another comment\ntab\tT AE B\r\nlast L AE S T";  // no final line break
        QCOMPARE(PronouncingDictionary::keepOnly(dictionary, {"'bout", "read", "tab", "last", "unused"}),
                 QByteArray("'bout B AW T\nread R IY D\nread(2) R EH D\ntab\tT AE B\nlast L AE S T\n"));
    }

    void makesTheCopyOnceAndAgainWhenItsSourcesChange()
    {
        const QString folder = AudioTest::sandboxPath(QStringLiteral("dictionary"));
        const QString dict = folder + "/words.dict", lm = folder + "/words.lm.bin", cache = folder + "/cache";
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(writeFile(dict, "one W AH N\ntwo T UW\nthree TH R IY\n") && writeFile(lm, "a language model"));
        int reads = 0;
        auto trimmed = [&] {
            return PronouncingDictionary::trimmedFor(dict, lm, cache, [&](const QString& path) {
                ++reads;
                return path == lm ? QSet<QByteArray>{"one", "three", "four"} : QSet<QByteArray>{};
            });
        };
        const auto first = trimmed();
        QVERIFY2(first.problem.isEmpty() && first.path.startsWith(cache), qPrintable(first.problem));
        QCOMPARE(entries(first.path), QByteArray("one W AH N\nthree TH R IY\n"));
        QCOMPARE(trimmed().path, first.path);
        QCOMPARE(reads, 1);
        // A changed dictionary is trimmed again, and so is a copy damaged on disk.
        QVERIFY(writeFile(dict, "one W AH N\ntwo T UW\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QVERIFY(writeFile(first.path, "garbage"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(reads, 3);
        // Any failure falls back to the whole dictionary: here, a cache folder that cannot be made.
        const auto unwritable =
            PronouncingDictionary::trimmedFor(dict, lm, dict + "/cache", [](const QString&) { return QSet<QByteArray>{"one"}; });
        QVERIFY2(unwritable.path == dict && unwritable.problem.startsWith("cannot write "), qPrintable(unwritable.problem));
    }
};

QTEST_GUILESS_MAIN(SpeechRecognitionTest)
#include "SpeechRecognitionTest.moc"
