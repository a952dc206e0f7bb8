#include "SpeechTestSupport.h"

#include "speech/ModelInventory.h"
#include "speech/TranscriberController.h"

#include <QTest>

#include <mutex>

using SpeechTest::await;

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

const QString kFirst = QStringLiteral("please pick up milk and coffee on the way home");
const QString kSecond = QStringLiteral("the meeting moved to thursday afternoon");

}  // namespace

class PocketsphinxEngineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void transcribesSynthesisedSpeechBySegments();
    void dropsAudioInAnotherFormat();

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

    await(controller.start());
    const auto input = controller.inputContinuation();
    QVERIFY(input);
    // Two sentences with a pause between them long enough for the voice-activity end.
    std::vector<float> audio = first_;
    audio.insert(audio.end(), 16000, 0.0f);
    audio.insert(audio.end(), second_.begin(), second_.end());
    feed(*input, audio);
    const QString text = await(controller.finish());
    qInfo("heard: %s", qPrintable(text));

    const QStringList expected = SpeechTest::words(kFirst + QLatin1Char(' ') + kSecond);
    const int right = SpeechTest::wordsInOrder(expected, SpeechTest::words(text));
    QVERIFY2(right * 10 >= expected.size() * 7, qPrintable(QStringLiteral("%1 of %2 words right: %3")
                                                              .arg(right).arg(expected.size()).arg(text)));

    // The pause ended the first segment: its words were committed before the second's.
    std::lock_guard lock(mutex);
    QString firstCommit;
    for (const auto& p : partials) {
        if (!p.first.isEmpty()) {
            firstCommit = p.first;
            break;
        }
    }
    QVERIFY2(!firstCommit.isEmpty() && SpeechTest::wordsInOrder(SpeechTest::words(kSecond), SpeechTest::words(firstCommit)) <= 1,
             qPrintable(QStringLiteral("first committed text: ") + firstCommit));
    QVERIFY(SpeechTest::wordsInOrder(SpeechTest::words(kFirst), SpeechTest::words(firstCommit)) >= 5);
    QCOMPARE(partials.last().second, QString());
}

void PocketsphinxEngineTest::dropsAudioInAnotherFormat()
{
    TranscriberController controller;
    await(controller.prepare(QStringLiteral("en-US")));
    await(controller.start());
    TestSupport::LogMark mark;
    feed(*controller.inputContinuation(), first_, AudioFormat{44100, 2});
    QCOMPARE(await(controller.finish()), QString());
    QVERIFY(mark.messages().contains(
        QStringLiteral("transcriber: dropping audio in 44100.0Hz/2ch; the recognizer takes 16000.0Hz/1ch")));

    // The next session in the right format is heard again.
    await(controller.start());
    feed(*controller.inputContinuation(), first_);
    QVERIFY(SpeechTest::wordsInOrder(SpeechTest::words(kFirst), SpeechTest::words(await(controller.finish()))) >= 5);
}

QTEST_GUILESS_MAIN(PocketsphinxEngineTest)
#include "PocketsphinxEngineTest.moc"
