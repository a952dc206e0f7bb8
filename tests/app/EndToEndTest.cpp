// The real tolvane program on a private X server, with a PulseAudio microphone that is a pipe fed
// with synthesised speech, a real X client to dictate into, and the keys pressed through XTest.
// Only what needs the real desktop is here: the controller's logic has tests of its own.
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/RecordingClient.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"

#include <QRegularExpression>
#include <QTest>

namespace {

constexpr unsigned altL = 64, space = 65, escape = 9;
const QString& ready = TestSupport::readyLine;
const QString running = QStringLiteral("dictation: audio + transcriber running"),
              held = QStringLiteral("pick up milk and eggs on the way home"),
              handsFree = QStringLiteral("the meeting moved to three o'clock"), live = QStringLiteral("please call me back after lunch"),
              // Heard as "nice and the quarterly report" when the decoder's first frames are speech.
              eager = QStringLiteral("please send the quarterly report to the finance team");

using SpeechTest::wordsHeard;

// The transcript tolvane saved last, once the history holds `count` of them.
QString savedTranscript(qsizetype count)
{
    QList<TranscriptEntry> saved;
    TestSupport::waitUntil([&] { return (saved = TranscriptStore(TranscriptStore::fileURL()).entries()).size() == count; }, 20000);
    return saved.size() == count ? saved.last().text : QString();
}

}  // namespace

class EndToEndTest : public QObject {
    Q_OBJECT
    AudioTest::PipeMicrophone microphone_;
    QProcess tolvane_;
    RecordingClient client_;
    Fingers fingers_;
    QMap<QString, QByteArray> speech_;  // by the words said

    // A person's tap: the key stays down for a moment.
    void tap(unsigned keycode)
    {
        fingers_.press(keycode);
        QTest::qWait(80);
        fingers_.release(keycode);
    }

    // Holds the dictation key down until the microphone is on, then says `words`; false, with the key
    // up again, when the dictation could not start.
    bool holdAndSay(const QString& words, bool paced = false)
    {
        const TestSupport::LogMark mark;
        fingers_.press(altL);
        const QRegularExpression outcome(QStringLiteral("running|start FAILED"));
        TestSupport::waitUntil([&] { return !mark.messages().filter(outcome).isEmpty(); }, 20000);
        const bool started = mark.messages().contains(running);
        started ? microphone_.speak(speech_[words], paced) : fingers_.release(altL);
        return started;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(microphone_.start(), QString());
        for (const QString& words : {held, handsFree, live, eager}) {
            const std::vector<float> spoken = SpeechTest::synthesize(words);
            speech_[words] = AudioTest::pcm16(words == eager ? SpeechTest::withoutSilence(spoken) : spoken);
            QVERIFY2(!speech_[words].isEmpty(), "festival and sox are needed (scripts/setup.sh --test installs them)");
        }
        QVERIFY(fingers_.ok() && client_.start());
        Preferences::shared().setCleanupMode(CleanupMode::raw);  // exactly what was said, so the words can be compared
        Preferences::shared().setValue(Settings::noTrayExplained, true);  // no notice window mid-dictation
        TestSupport::LogMark mark;
        tolvane_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        QVERIFY2(mark.waitFor(ready, 60000), "tolvane did not become ready");
    }

    void cleanupTestCase()
    {
        TestSupport::stop(tolvane_);
        microphone_.stop();
    }

    void init()
    {
        Preferences::shared().setLiveTyping(false);
        QVERIFY(client_.clear());
        QVERIFY(client_.focus());
    }

    void holdThenHandsFree()
    {
        QVERIFY(holdAndSay(held));
        QTest::qWait(1000);  // let the capture take in what the pipe holds
        fingers_.release(altL);
        const QString first = savedTranscript(1);
        QCOMPARE(client_.waitFor([&](const auto& r) { return r.text == first; }).text, first);
        QVERIFY2(wordsHeard(held, first) >= 5, qPrintable(first));

        // ⌥+Space while holding goes hands-free: the key's release is ignored, its next tap ends it.
        const TestSupport::LogMark mark;
        QVERIFY(holdAndSay(handsFree));
        tap(space);
        QTest::qWait(80);
        fingers_.release(altL);
        QVERIFY(mark.waitFor(QStringLiteral("state: HOLD → TOGGLE (⌥+Space while holding)")));
        QTest::qWait(1000);
        tap(altL);
        // Moments after the first, so it follows with one blank.
        const QString both = first + QLatin1Char(' ') + savedTranscript(2);
        const auto got = client_.waitFor([&](const auto& r) { return r.text == both; });  // typing takes a moment
        QCOMPARE(got.text, both);
        QVERIFY2(wordsHeard(handsFree, both) >= 3, qPrintable(both));
        QCOMPARE(got.spaces, int(both.count(QLatin1Char(' '))));  // the chord's Space never reached the client
        QCOMPARE(got.loneAltTaps, 0);  // typing never taps Alt alone, which would open the client's menu
    }

    void escapeDiscardsThenLiveTypingTypesWhileSpeaking()
    {
        TestSupport::LogMark mark;
        QVERIFY(holdAndSay(held));
        tap(escape);
        fingers_.release(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: DISCARD")));

        // Nothing of the discarded speech ever arrives; the next words arrive while the key is down.
        Preferences::shared().setLiveTyping(true);
        QVERIFY(holdAndSay(live, true));
        const auto during = client_.waitFor([](const RecordingClient::Received& r) { return !r.text.trimmed().isEmpty(); });
        QVERIFY2(!during.text.trimmed().isEmpty(), "nothing was typed while speaking");
        fingers_.release(altL);
        // The final text on screen is the transcript the history kept (the third after the two before).
        const QString last = savedTranscript(3);
        QCOMPARE(client_.waitFor([&](const auto& r) { return r.text == last; }).text, last);
        QVERIFY2(wordsHeard(live, last) >= 3, qPrintable(last));
    }

    void recoversAfterTheSoundServerRestarts()
    {
        // What an update of the sound server does under a running desktop.
        microphone_.stop();
        QCOMPARE(microphone_.start(), QString());
        // Qt reconnects a few seconds after the new server is up; until then a dictation fails to
        // start, says so in the log and leaves everything idle.
        for (int attempt = 0; !holdAndSay(held); ++attempt) {
            QVERIFY2(attempt < 20, "dictation never started again");
            QTest::qWait(500);
        }
        QTest::qWait(1000);
        fingers_.release(altL);
        const auto got = client_.waitFor([&](const RecordingClient::Received& r) { return wordsHeard(held, r.text) >= 5; }, 20000);
        QVERIFY2(wordsHeard(held, got.text) >= 5, qPrintable(got.text));
    }

    void speechFromKeyDownToKeyUpKeepsItsFirstAndLastWords()
    {
        // A microphone that hears all the time, and a speaker who talks as the key goes down and
        // lets go of it with the last word.
        microphone_.listen();
        fingers_.press(altL);
        microphone_.say(speech_[eager], AudioTest::PipeMicrophone::Clock::now());
        QVERIFY(microphone_.waitUntilSaid());
        fingers_.release(altL);
        const QString got = client_.waitFor([](const RecordingClient::Received& r) { return r.text.endsWith(QStringLiteral("team")); }, 20000).text;
        QVERIFY2(got.endsWith(QStringLiteral("team")) && SpeechTest::words(got).value(0) == QStringLiteral("please"), qPrintable(got));
    }

    void secondLaunchHandsOverToTheRunningOne()
    {
        // As the desktop entry's actions do: Settings reaches the running one, Quit ends it.
        for (const char* option : {"", "--settings"}) {
            const auto second = TestSupport::runTolvane({.arguments = QStringList(option).filter(u"-"), .timeoutMs = 15000});
            QCOMPARE(second.exitCode, 0);
            QVERIFY2(second.out.contains(QStringLiteral("already running")), qPrintable(second.out));
            QCOMPARE(tolvane_.state(), QProcess::Running);
        }
        const auto quit = TestSupport::runTolvane({.arguments = {QStringLiteral("--quit")}, .timeoutMs = 15000});
        QCOMPARE(quit.out, QStringLiteral("Tolvane was asked to quit.\n"));
        QVERIFY(tolvane_.waitForFinished(10000));
        QCOMPARE(tolvane_.exitCode(), 0);
        QCOMPARE(TestSupport::runTolvane({.arguments = {QStringLiteral("--quit")}}).out, QStringLiteral("Tolvane is not running.\n"));
    }

    void aSoundServerStartedLateIsFoundWithoutARelaunch()
    {
        TestSupport::stop(tolvane_);
        microphone_.stop();
        TestSupport::LogMark mark;
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        QVERIFY(mark.waitFor(QStringLiteral("bootstrap: waiting for a microphone…"), 30000));
        QTest::qWait(3000);
        QCOMPARE(microphone_.start(), QString());
        QVERIFY(TestSupport::waitUntil(
            [&] { return !mark.messages().filter(QStringLiteral("bootstrap: a microphone appeared after")).isEmpty(); }, 20000));
        QVERIFY(mark.waitFor(ready, 60000));
        QVERIFY(holdAndSay(held));
        QTest::qWait(1000);
        fingers_.release(altL);
        const QString text = client_.waitFor([](const auto& r) { return !r.text.isEmpty(); }, 20000).text;
        QVERIFY2(wordsHeard(held, text) >= 5, qPrintable(text));
    }
};

QTEST_MAIN(EndToEndTest)
#include "EndToEndTest.moc"
