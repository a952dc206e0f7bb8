#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/ModelInventory.h"
#include "speech/PocketsphinxEngine.h"
#include "speech/TranscriberController.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <pocketsphinx.h>

#include <chrono>
#include <mutex>

using TestSupport::await;

namespace {

// Feeds 16 kHz mono samples in blocks of the size capture delivers after conversion.
void feed(AudioInputStream& input, const std::vector<float>& samples, AudioFormat format = {16000, 1})
{
    constexpr size_t block = 341;
    for (size_t at = 0; at < samples.size(); at += block) {
        const size_t end = std::min(samples.size(), at + block);
        input.yield(AudioBuffer{format, std::vector<float>(samples.begin() + static_cast<std::ptrdiff_t>(at),
                                                           samples.begin() + static_cast<std::ptrdiff_t>(end))});
    }
}

// The installed models, with engines loaded with the given settings (from `folder` when given).
class ModelsWithSettings final : public AbstractModelInventory {
public:
    explicit ModelsWithSettings(PocketsphinxEngine::Settings settings, QString folder = {})
        : settings_(std::move(settings)), folder_(std::move(folder))
    {
    }
    QCoro::Task<QStringList> supportedLocales() override { return models_.supportedLocales(); }
    QCoro::Task<ModelStatus> status(QString locale) override { return models_.status(locale); }
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString locale) override
    {
        return models_.installationRequest(locale);
    }
    QCoro::Task<void> downloadAndInstall(ModelSource source) override { return models_.downloadAndInstall(source); }
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) override
    {
        const auto model =
            PocketsphinxEngine::Model::inFolder(folder_.isEmpty() ? models_.installedModelFolder(locale) : folder_, locale);
        if (!model)
            throw CollaboratorError(QStringLiteral("no model"));
        engine = PocketsphinxEngine::load(*model, settings_);
        co_return std::shared_ptr<SpeechEngine>(engine);
    }

    std::shared_ptr<PocketsphinxEngine> engine;

private:
    ModelInventory models_;
    PocketsphinxEngine::Settings settings_;
    QString folder_;
};

// What a fresh decoder hears in the samples, as one utterance.
QString decodeOnce(const PocketsphinxEngine::Model& model, const PocketsphinxEngine::Settings& settings,
                   const std::vector<float>& samples)
{
    ps_decoder_t* ps = PocketsphinxEngine::createDecoder(model, settings);
    if (!ps)
        return QStringLiteral("(no decoder)");
    std::vector<int16> pcm;
    for (float v : samples)
        pcm.push_back(static_cast<int16>(std::lrint(std::clamp(v, -1.0f, 1.0f) * 32767.0f)));
    ps_start_utt(ps);
    ps_process_raw(ps, pcm.data(), pcm.size(), FALSE, TRUE);
    ps_end_utt(ps);
    const char* hyp = ps_get_hyp(ps, nullptr);
    const QString text = QString::fromUtf8(hyp ? hyp : "");
    ps_free(ps);
    return text;
}

// Whether at least seven in ten of the words said were heard, in order.
bool heardMost(const QString& said, const QString& heard)
{
    const QStringList expected = SpeechTest::words(said);
    return SpeechTest::wordsInOrder(expected, SpeechTest::words(heard)) * 10 >= expected.size() * 7;
}

// One whole session over the samples: what the controller heard.
QString session(TranscriberController& controller, const std::vector<float>& samples, AudioFormat format = {16000, 1})
{
    await(controller.start());
    feed(*controller.inputContinuation(), samples, format);
    return await(controller.finish());
}

const QString kFirst = QStringLiteral("please pick up milk and coffee on the way home");
const QString kSecond = QStringLiteral("the meeting moved to thursday afternoon");

}  // namespace

class PocketsphinxEngineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void transcribesSynthesisedSpeechBySegments();
    void dropsAudioInAnotherFormat();
    void trimmedDictionaryHearsTheSameWords();
    void releasesAnUnusedModelAndLoadsItAgainWithoutLosingSpeech();
    void aModelThatVanishedWhileReleasedFailsOnlyItsSession();

private:
    std::vector<float> first_, second_;
};

void PocketsphinxEngineTest::initTestCase()
{
    first_ = SpeechTest::synthesize(kFirst);
    second_ = SpeechTest::synthesize(kSecond);
    QVERIFY2(!first_.empty() && !second_.empty(), "festival (text2wave with festvox-us-slt-hts) and sox are needed");
    QVERIFY2(!ModelInventory().installedModelFolder(QStringLiteral("en-US")).isEmpty(), "pocketsphinx-en-us is needed");
}

void PocketsphinxEngineTest::transcribesSynthesisedSpeechBySegments()
{
    TranscriberController controller;
    std::mutex mutex;
    QList<QPair<QString, QString>> partials;
    controller.onPartial = [&](QString committed, QString volatileText) {
        std::lock_guard lock(mutex);
        partials << qMakePair(committed, volatileText);
    };
    await(controller.prepare(QStringLiteral("en-us")));
    QCOMPARE(controller.analyzerFormat(), std::optional<AudioFormat>(AudioFormat{16000, 1}));

    // Two sentences with a pause between them long enough for the voice-activity end.
    std::vector<float> audio = first_;
    audio.insert(audio.end(), 16000, 0.0f);
    audio.insert(audio.end(), second_.begin(), second_.end());
    const QString text = session(controller, audio);
    qInfo("heard: %s", qPrintable(text));
    QVERIFY2(heardMost(kFirst + QLatin1Char(' ') + kSecond, text), qPrintable(text));

    // The pause ended the first segment: its words were committed before the second's.
    std::lock_guard lock(mutex);
    QString firstCommit;
    for (const auto& p : partials) {
        if (!p.first.isEmpty()) {
            firstCommit = p.first;
            break;
        }
    }
    QVERIFY2(SpeechTest::wordsInOrder(SpeechTest::words(kSecond), SpeechTest::words(firstCommit)) <= 1,
             qPrintable(QStringLiteral("first committed text: ") + firstCommit));
    QVERIFY(SpeechTest::wordsInOrder(SpeechTest::words(kFirst), SpeechTest::words(firstCommit)) >= 5);
    QCOMPARE(partials.last().second, QString());
}

void PocketsphinxEngineTest::dropsAudioInAnotherFormat()
{
    TranscriberController controller;
    await(controller.prepare(QStringLiteral("en-US")));
    TestSupport::LogMark mark;
    QCOMPARE(session(controller, first_, AudioFormat{44100, 2}), QString());
    QVERIFY(mark.messages().contains(
        QStringLiteral("transcriber: dropping audio in 44100.0Hz/2ch; the recognizer takes 16000.0Hz/1ch")));
    // The next session in the right format is heard again.
    QVERIFY(heardMost(kFirst, session(controller, first_)));
}

void PocketsphinxEngineTest::trimmedDictionaryHearsTheSameWords()
{
    const auto model = PocketsphinxEngine::Model::inFolder(ModelInventory().installedModelFolder(QStringLiteral("en-US")),
                                                           QStringLiteral("en-US"));
    QVERIFY(model);
    PocketsphinxEngine::Settings whole;
    whole.trimDictionary = false;
    std::vector<float> audio = first_;
    audio.insert(audio.end(), second_.begin(), second_.end());
    TestSupport::LogMark mark;
    const QString trimmedHeard = decodeOnce(*model, PocketsphinxEngine::Settings(), audio);
    // No fallback to the whole dictionary, or the comparison below would prove nothing.
    QVERIFY2(mark.messages().filter(QLatin1String("whole dictionary")).isEmpty(), qPrintable(mark.messages().join(QLatin1Char('\n'))));
    QVERIFY(heardMost(kFirst, trimmedHeard));
    QCOMPARE(trimmedHeard, decodeOnce(*model, whole, audio));
}

void PocketsphinxEngineTest::releasesAnUnusedModelAndLoadsItAgainWithoutLosingSpeech()
{
    PocketsphinxEngine::Settings settings;
    settings.keepLoaded = std::chrono::milliseconds(200);
    auto models = std::make_shared<ModelsWithSettings>(settings);
    TranscriberController controller(models);
    await(controller.prepare(QStringLiteral("en-US")));
    const std::shared_ptr<PocketsphinxEngine> engine = models->engine;
    QVERIFY(engine && engine->isLoaded());
    QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));

    // All of the speech arrives before the decoding thread has loaded the model again.
    await(controller.start());
    feed(*controller.inputContinuation(), first_);
    // A session outlasting the keep-alive keeps its model.
    QTest::qWait(500);
    QVERIFY(engine->isLoaded());
    const QString heard = await(controller.finish());
    QVERIFY2(heardMost(kFirst, heard), qPrintable(heard));
    QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));
}

void PocketsphinxEngineTest::aModelThatVanishedWhileReleasedFailsOnlyItsSession()
{
    // The installed model, seen through links that can be taken away and put back.
    const QDir installed(ModelInventory().installedModelFolder(QStringLiteral("en-US")));
    QTemporaryDir dir;
    const QStringList names = installed.entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    auto link = [&](bool on) {
        for (const QString& name : names) {
            const QString at = dir.filePath(name);
            if (!(on ? QFile::link(installed.filePath(name), at) : QFile::remove(at)))
                return false;
        }
        return true;
    };
    QVERIFY(link(true));
    PocketsphinxEngine::Settings settings;
    settings.keepLoaded = std::chrono::milliseconds(100);
    auto models = std::make_shared<ModelsWithSettings>(settings, dir.path());
    TranscriberController controller(models);
    await(controller.prepare(QStringLiteral("en-US")));
    const std::shared_ptr<PocketsphinxEngine> engine = models->engine;
    QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));

    QVERIFY(link(false));
    TestSupport::LogMark mark;
    QCOMPARE(session(controller, first_), QString());
    QVERIFY2(mark.messages().contains(QStringLiteral("transcriber: results stream error: Could not load the speech model in ")
                                      + QDir(dir.path()).absolutePath()),
             qPrintable(mark.messages().join(QLatin1Char('\n'))));

    // Put back, the model serves the next session.
    QVERIFY(link(true));
    QVERIFY(heardMost(kFirst, session(controller, first_)));
}

QTEST_GUILESS_MAIN(PocketsphinxEngineTest)
#include "PocketsphinxEngineTest.moc"
