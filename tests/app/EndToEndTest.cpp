// The real tolvane program on a private X server, with a PulseAudio microphone that is a pipe fed
// with synthesised speech, a real X client to dictate into, and the keys pressed through XTest.
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/TestSupport.h"

#include "support/Sound.h"
#include "support/RecordingClient.h"
#include "support/Speech.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

#include <optional>

namespace {

constexpr unsigned altL = 64, space = 65, escape = 9;
const QString ready = QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.");

}  // namespace

class EndToEndTest : public QObject {
    Q_OBJECT
    AudioTest::PipeMicrophone microphone_;
    QProcess tolvane_;
    RecordingClient client_;
    Fingers fingers_;
    QByteArray holdSpeech_, handsFreeSpeech_, liveSpeech_;

    void startTolvane(const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment())
    {
        tolvane_.setProcessEnvironment(env);
        tolvane_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        QVERIFY(tolvane_.waitForStarted(10000));
    }

    void stopTolvane() { TestSupport::stop(tolvane_); }

    // A person's tap: the key stays down for a moment.
    void tap(unsigned keycode)
    {
        fingers_.press(keycode);
        QTest::qWait(80);
        fingers_.release(keycode);
    }

    // The transcript tolvane saved last, once the history holds `count` of them.
    static QString savedTranscript(qsizetype count)
    {
        QList<QByteArray> lines;
        TestSupport::waitUntil([&] {
            QFile history(TranscriptStore::fileURL());
            lines = history.open(QIODevice::ReadOnly) ? history.readAll().trimmed().split('\n') : QList<QByteArray>();
            return lines.size() == count;
        });
        if (lines.size() != count)
            return {};
        return QJsonDocument::fromJson(lines.last()).object().value(QStringLiteral("text")).toString();
    }

    // Waits until the client shows exactly `text` (typing takes a moment) and returns what it has.
    RecordingClient::Received arrived(const QString& text)
    {
        return client_.waitFor([&](const RecordingClient::Received& r) { return r.text == text; });
    }

    static int wordsHeard(const QString& said, const QString& arrived)
    {
        return SpeechTest::wordsInOrder(SpeechTest::words(said), SpeechTest::words(arrived));
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString micProblem = microphone_.start();
        QVERIFY2(micProblem.isEmpty(), qPrintable(micProblem));

        holdSpeech_ = AudioTest::pcm16(SpeechTest::synthesize(QStringLiteral("pick up milk and eggs on the way home")));
        handsFreeSpeech_ = AudioTest::pcm16(SpeechTest::synthesize(QStringLiteral("the meeting moved to three o'clock")));
        liveSpeech_ = AudioTest::pcm16(SpeechTest::synthesize(QStringLiteral("please call me back after lunch")));
        QVERIFY2(!holdSpeech_.isEmpty() && !handsFreeSpeech_.isEmpty() && !liveSpeech_.isEmpty(),
                 "festival and sox are needed (scripts/setup.sh --test installs them)");

        QVERIFY(fingers_.ok());
        QVERIFY(client_.start());
        // Exactly what was said, so the words can be compared.
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        TestSupport::LogMark mark;
        startTolvane();
        QVERIFY2(mark.waitFor(ready, 60000), "tolvane did not become ready");
        QVERIFY(client_.focus());
    }

    void cleanupTestCase()
    {
        stopTolvane();
        microphone_.stop();
    }

    void init()
    {
        Preferences::shared().setLiveTyping(false);
        QVERIFY(client_.clear());
        QVERIFY(client_.focus());
    }

    void holdSpeakRelease()
    {
        TestSupport::LogMark mark;
        fingers_.press(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: audio + transcriber running")));
        microphone_.speak(holdSpeech_);
        QTest::qWait(1000);  // let the capture take in what the pipe holds
        fingers_.release(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: pasted=true (leadingSpace=false)")));
        const QString saved = savedTranscript(1);
        const auto got = arrived(saved);
        QCOMPARE(got.text, saved);
        QVERIFY2(wordsHeard(QStringLiteral("pick up milk and eggs on the way home"), saved) >= 5, qPrintable(saved));
        QCOMPARE(got.loneAltTaps, 0);

        const QStringList log = mark.messages();
        for (const QString& step : {QStringLiteral("hotkey: OPTION DOWN"), QStringLiteral("dictation: starting (mode=hold)"),
                                    QStringLiteral("hotkey: OPTION UP"),
                                    QStringLiteral("dictation: finishing (paste=true, fromToggle=false)")})
            QVERIFY2(log.contains(step), qPrintable(step));
    }

    void handsFreeThenTap()
    {
        TestSupport::LogMark mark;
        fingers_.press(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: audio + transcriber running")));
        tap(space);
        QTest::qWait(80);
        fingers_.release(altL);
        QVERIFY(mark.waitFor(QStringLiteral("state: HOLD → TOGGLE (⌥+Space while holding)")));
        microphone_.speak(handsFreeSpeech_);
        QTest::qWait(1000);
        QVERIFY(!mark.messages().contains(QStringLiteral("dictation: finishing (paste=true, fromToggle=true)")));
        tap(altL);
        QVERIFY(mark.waitFor(QStringLiteral("state: TOGGLE → END (⌥ tap)")));
        QVERIFY(mark.waitFor(QStringLiteral("dictation: finishing (paste=true, fromToggle=true)")));
        // Moments after the previous dictation, so it starts with one blank.
        const QString saved = savedTranscript(2);
        const auto got = arrived(QLatin1Char(' ') + saved);
        QCOMPARE(got.text, QLatin1Char(' ') + saved);
        QVERIFY2(wordsHeard(QStringLiteral("the meeting moved to three o'clock"), saved) >= 3, qPrintable(saved));
        QCOMPARE(got.spaces, int(got.text.count(QLatin1Char(' '))));  // the chord's Space never reached the client
        QCOMPARE(got.loneAltTaps, 0);
    }

    void escapeDiscards()
    {
        TestSupport::LogMark mark;
        fingers_.press(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: audio + transcriber running")));
        microphone_.speak(holdSpeech_);
        tap(escape);
        fingers_.release(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: DISCARD")));
        QTest::qWait(1500);  // anything that would arrive would have by now
        const auto got = client_.dump();
        QVERIFY(got);
        QCOMPARE(got->text, QString());
        QVERIFY(!mark.messages().contains(QStringLiteral("dictation: finishing (paste=true, fromToggle=false)")));
    }

    void liveTypingTypesWhileSpeaking()
    {
        Preferences::shared().setLiveTyping(true);
        TestSupport::LogMark mark;
        fingers_.press(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: audio + transcriber running")));
        microphone_.speak(liveSpeech_, true);
        // Words are on screen before the key comes up.
        const auto during = client_.waitFor([](const RecordingClient::Received& r) { return !r.text.trimmed().isEmpty(); });
        QVERIFY2(!during.text.trimmed().isEmpty(), "nothing was typed while speaking");
        QVERIFY(!mark.messages().contains(QStringLiteral("hotkey: OPTION UP")));
        fingers_.release(altL);
        QVERIFY(TestSupport::waitUntil([&] { return !mark.messages().filter(QStringLiteral("dictation: live-typed ")).isEmpty(); }));
        // The final text on screen is the transcript the history kept (third: hold, hands-free, this).
        const QString last = savedTranscript(3);
        const auto after = arrived(last);
        QCOMPARE(after.text, last);
        QVERIFY2(wordsHeard(QStringLiteral("please call me back after lunch"), last) >= 3, qPrintable(last));
    }

    void soundServerRestartedWhileRunning()
    {
        // What an update of the sound server does under a running desktop.
        microphone_.stop();
        const QString micProblem = microphone_.start();
        QVERIFY2(micProblem.isEmpty(), qPrintable(micProblem));

        // Qt connects to the new server a few seconds after it is up; until then a dictation fails
        // to start, says so in the log and leaves everything idle.
        const QString running = QStringLiteral("dictation: audio + transcriber running");
        std::optional<TestSupport::LogMark> mark;
        for (int attempt = 0; attempt < 20; ++attempt) {
            mark.emplace();
            fingers_.press(altL);
            QVERIFY(TestSupport::waitUntil([&] {
                const QStringList log = mark->messages();
                return log.contains(running) || !log.filter(QStringLiteral("dictation: start FAILED")).isEmpty();
            }));
            if (mark->messages().contains(running))
                break;
            fingers_.release(altL);
            QTest::qWait(500);
        }
        QVERIFY(mark->messages().contains(running));
        microphone_.speak(holdSpeech_);
        QTest::qWait(1000);
        fingers_.release(altL);
        QVERIFY(TestSupport::waitUntil([&] { return !mark->messages().filter(QStringLiteral("dictation: pasted=true")).isEmpty(); }));
        const QString said = QStringLiteral("pick up milk and eggs on the way home");
        const auto got = client_.waitFor([&](const RecordingClient::Received& r) { return wordsHeard(said, r.text) >= 5; });
        QVERIFY2(wordsHeard(said, got.text) >= 5, qPrintable(got.text));
    }

    void secondLaunchHandsOverToTheRunningOne()
    {
        QProcess second;
        second.start(TestSupport::tolvaneBinary(), {});
        QVERIFY(second.waitForFinished(15000));
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(QString::fromUtf8(second.readAllStandardOutput()).contains(QStringLiteral("already running")));
        QCOMPARE(tolvane_.state(), QProcess::Running);
    }

    void noMicrophoneGivesThePromptAndNoCrash()
    {
        stopTolvane();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PULSE_SERVER"), QStringLiteral("unix:/nonexistent/tolvane-no-sound-server"));
        TestSupport::LogMark mark;
        startTolvane(env);
        QVERIFY(mark.waitFor(QStringLiteral("bootstrap: microphone = false"), 30000));
        QTest::qWait(500);
        QCOMPARE(tolvane_.state(), QProcess::Running);
        QVERIFY(!mark.messages().contains(ready));
        // A key press now starts nothing and breaks nothing.
        tap(altL);
        QTest::qWait(300);
        QCOMPARE(tolvane_.state(), QProcess::Running);
        QVERIFY(mark.messages().filter(QStringLiteral("dictation: ")).isEmpty());
    }
};

QTEST_MAIN(EndToEndTest)
#include "EndToEndTest.moc"
