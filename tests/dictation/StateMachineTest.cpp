#include "support/DelegateRig.h"

#include "dictation/AppDelegate.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/TestSupport.h"

#include <QTest>

#include <memory>
#include <thread>

using Mode = AppDelegate::Mode;

namespace {

struct Rig : DelegateRig {
    void tap()
    {
        fire(QStringLiteral("key down"));
        fire(QStringLiteral("key up"));
    }

    // Brings the machine into a state through real events, then forgets what that took.
    void enter(const QString& state)
    {
        if (state == QLatin1String("hold")) {
            fire(QStringLiteral("key down"));
        } else if (state == QLatin1String("toggle")) {
            fire(QStringLiteral("chord"));
        } else if (state == QLatin1String("toggle, key still held")) {
            fire(QStringLiteral("key down"));
            fire(QStringLiteral("chord"));
        } else if (state == QLatin1String("finishing")) {
            transcriber.finishGate.closed = true;
            fire(QStringLiteral("key down"));
            fire(QStringLiteral("key up"));
        }
        journal.take();
    }
};

const QStringList startCalls(bool toggle)
{
    return {QStringLiteral("overlay.setMode(%1)").arg(toggle ? QStringLiteral("true") : QStringLiteral("false")),
            QStringLiteral("overlay.show"), QStringLiteral("transcriber.start"), QStringLiteral("audio.start")};
}
const QStringList finishCalls{QStringLiteral("audio.stop"), QStringLiteral("overlay.beginProcessing"),
                              QStringLiteral("transcriber.finish")};
const QStringList discardCalls{QStringLiteral("overlay.setMode(false)"), QStringLiteral("audio.stop"),
                               QStringLiteral("overlay.resetToIdle"), QStringLiteral("menuBar.stopAnimating"),
                               QStringLiteral("transcriber.cancel")};
const QString finishHold = QStringLiteral("dictation: finishing (paste=true, fromToggle=false)");
const QString finishToggle = QStringLiteral("dictation: finishing (paste=true, fromToggle=true)");

}  // namespace

Q_DECLARE_METATYPE(AppDelegate::Mode)

class StateMachineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        Preferences::shared().setCleanupMode(CleanupMode::raw);  // what is inserted is not this test's concern
    }

    void transitionTable_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("event");
        QTest::addColumn<bool>("settingsKey");
        QTest::addColumn<bool>("liveTyping");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QStringList>("logs");
        QTest::addColumn<Mode>("to");

        const QString down = QStringLiteral("hotkey: OPTION DOWN"), up = QStringLiteral("hotkey: OPTION UP"),
                      chord = QStringLiteral("hotkey: ⌥+SPACE chord"), esc = QStringLiteral("hotkey: ESC (discard)"),
                      accept = QStringLiteral("overlay: INSERT (✓) button clicked"),
                      discard = QStringLiteral("overlay: DISCARD button clicked"),
                      running = QStringLiteral("dictation: audio + transcriber running"),
                      dropped = QStringLiteral("dictation: DISCARD");
        auto row = [](const QString& from, const QString& event, bool settingsKey, bool live, const QStringList& calls,
                      const QStringList& logs, Mode to) {
            const QString name = from + QStringLiteral(" / ") + event + (settingsKey ? QStringLiteral(" / settings key") : QString())
                                 + (live ? QStringLiteral(" / live typing") : QString());
            QTest::newRow(qPrintable(name)) << from << event << settingsKey << live << calls << logs << to;
        };

        // idle
        row("idle", "key down", false, false, startCalls(false),
            {down, QStringLiteral("dictation: starting (mode=hold)"), running}, Mode::hold);
        row("idle", "key down", true, false, {}, {down}, Mode::idle);
        row("idle", "chord", false, false, startCalls(true),
            {chord, QStringLiteral("dictation: starting (mode=toggle)"), running}, Mode::toggle);
        row("idle", "chord", true, false, {}, {chord}, Mode::idle);
        row("idle", "key up", false, false, {}, {up}, Mode::idle);
        row("idle", "any key", false, false, {}, {}, Mode::idle);
        row("idle", "esc", false, false, {}, {}, Mode::idle);
        row("idle", "accept", false, false, {}, {accept}, Mode::idle);
        row("idle", "discard", false, false, {}, {discard}, Mode::idle);
        // hold
        row("hold", "key up", false, false, finishCalls, {up, finishHold}, Mode::finishing);
        row("hold", "key up", true, false, finishCalls, {up, finishHold}, Mode::finishing);  // no Settings check on release
        row("hold", "chord", false, false, {QStringLiteral("overlay.setMode(true)")},
            {chord, QStringLiteral("state: HOLD → TOGGLE (⌥+Space while holding)")}, Mode::toggle);
        row("hold", "chord", true, false, {}, {chord}, Mode::hold);
        row("hold", "esc", false, false, discardCalls, {esc, dropped}, Mode::idle);
        row("hold", "discard", false, false, discardCalls, {discard, dropped}, Mode::idle);
        row("hold", "accept", false, false, finishCalls,
            {accept, QStringLiteral("dictation: END + PASTE (from hold)"), finishToggle}, Mode::finishing);
        row("hold", "key down", false, false, {}, {down}, Mode::hold);
        row("hold", "any key", false, false, {}, {}, Mode::hold);
        // toggle
        row("toggle", "key up", false, false, finishCalls,
            {up, QStringLiteral("state: TOGGLE → END (⌥ tap)"), QStringLiteral("dictation: END + PASTE (from toggle)"),
             finishToggle},
            Mode::finishing);
        row("toggle, key still held", "key up", false, false, {}, {up}, Mode::toggle);
        row("toggle", "chord", false, false, finishCalls, {chord, QStringLiteral("state: TOGGLE → END (chord)"), finishToggle},
            Mode::finishing);
        row("toggle", "chord", true, false, {}, {chord}, Mode::toggle);
        row("toggle", "any key", false, false, finishCalls,
            {QStringLiteral("hotkey: key during toggle → end + paste"), QStringLiteral("dictation: END + PASTE (from toggle)"),
             finishToggle},
            Mode::finishing);
        row("toggle", "any key", false, true, {}, {}, Mode::toggle);
        row("toggle", "esc", false, false, discardCalls, {esc, dropped}, Mode::idle);
        row("toggle", "discard", false, false, discardCalls, {discard, dropped}, Mode::idle);
        row("toggle", "accept", false, false, finishCalls,
            {accept, QStringLiteral("dictation: END + PASTE (from toggle)"), finishToggle}, Mode::finishing);
        row("toggle", "key down", false, false, {}, {down}, Mode::toggle);
        // finishing: every event is ignored; only the callbacks' own lines are written
        row("finishing", "key down", false, false, {}, {down}, Mode::finishing);
        row("finishing", "key up", false, false, {}, {up}, Mode::finishing);
        row("finishing", "chord", false, false, {}, {chord}, Mode::finishing);
        row("finishing", "any key", false, false, {}, {}, Mode::finishing);
        row("finishing", "esc", false, false, {}, {esc}, Mode::finishing);
        row("finishing", "accept", false, false, {}, {accept}, Mode::finishing);
        row("finishing", "discard", false, false, {}, {discard}, Mode::finishing);
    }

    void transitionTable()
    {
        QFETCH(QString, from);
        QFETCH(QString, event);
        QFETCH(bool, settingsKey);
        QFETCH(bool, liveTyping);
        QFETCH(QStringList, calls);
        QFETCH(QStringList, logs);
        QFETCH(Mode, to);

        Preferences::shared().setLiveTyping(liveTyping);
        Rig rig;
        rig.transcriber.finishGate.closed = true;  // hold the pipeline in finishing to see it
        rig.enter(from);
        rig.settings.key = settingsKey;
        TestSupport::LogMark mark;
        rig.fire(event);
        QCOMPARE(rig.journal.take(), calls);
        QCOMPARE(mark.messages(), logs);
        QCOMPARE(rig.mode(), to);

        // However it got there, the machine comes back to idle with the pill narrow.
        rig.transcriber.finishGate.release();
        rig.settle();
        QCOMPARE(rig.mode(), to == Mode::finishing ? Mode::idle : to);
        if (rig.mode() == Mode::idle)
            QVERIFY(!rig.overlay.wide);
    }

    void finishingClosesInOrder()
    {
        Rig rig;
        rig.transcriber.finalText = QStringLiteral("  hello there \n");
        rig.enter(QStringLiteral("hold"));
        TestSupport::LogMark mark;
        rig.fire(QStringLiteral("key up"));
        const QStringList expected = finishCalls + QStringList{QStringLiteral("injector.insertText(hello there)"),
                                                               QStringLiteral("overlay.resetToIdle"),
                                                               QStringLiteral("menuBar.stopAnimating")};
        QCOMPARE(rig.journal.take(), expected);
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: final text length=11")));
        QCOMPARE(rig.mode(), Mode::idle);
    }

    void holdChordReleaseThenTapEnds()
    {
        Rig rig;
        rig.fire(QStringLiteral("key down"));
        rig.fire(QStringLiteral("chord"));
        rig.fire(QStringLiteral("key up"));  // swallowed: the dictation goes on hands-free
        QCOMPARE(rig.mode(), Mode::toggle);
        QVERIFY(rig.audio.running);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("transcriber.finish")));
        rig.tap();
        QCOMPARE(rig.mode(), Mode::idle);
        QCOMPARE(rig.journal.calls.count(QStringLiteral("transcriber.finish")), 1);
        QCOMPARE(rig.journal.calls.count(QStringLiteral("transcriber.start")), 1);
    }

    void chordFromIdleWhileKeyStillHeldEndsOnRelease()
    {
        // The key-down started nothing (the previous dictation was finishing), so the chord starts
        // a hands-free dictation and the release of the key ends it at once.
        Rig rig;
        rig.fire(QStringLiteral("chord"));
        QCOMPARE(rig.mode(), Mode::toggle);
        rig.fire(QStringLiteral("key up"));
        QCOMPARE(rig.mode(), Mode::idle);
        QCOMPARE(rig.journal.calls.count(QStringLiteral("transcriber.finish")), 1);
    }

    void staleIgnoreFlagNeverSwallowsALaterRelease_data()
    {
        QTest::addColumn<QString>("ending");
        QTest::newRow("esc") << QStringLiteral("esc");
        QTest::newRow("chord") << QStringLiteral("chord");
        QTest::newRow("accept") << QStringLiteral("accept");
        QTest::newRow("discard") << QStringLiteral("discard");
        QTest::newRow("any key") << QStringLiteral("any key");
    }
    void staleIgnoreFlagNeverSwallowsALaterRelease()
    {
        QFETCH(QString, ending);
        Rig rig;
        rig.enter(QStringLiteral("toggle, key still held"));
        QVERIFY(rig.delegate->ignoreNextOptionUp);
        rig.fire(ending);  // ended while the key is still down
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(!rig.delegate->ignoreNextOptionUp);
        rig.fire(QStringLiteral("key up"));  // the release of that key: idle, nothing happens
        // A later hands-free dictation ends with its first tap.
        rig.fire(QStringLiteral("chord"));
        QCOMPARE(rig.mode(), Mode::toggle);
        rig.journal.take();
        rig.tap();
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(rig.journal.calls.contains(QStringLiteral("transcriber.finish")));
    }

    void microphoneFailureReturnsToIdleAndClosesTheSession()
    {
        Rig rig;
        rig.audio.failure = QStringLiteral("no microphone");
        TestSupport::LogMark mark;
        rig.fire(QStringLiteral("key down"));
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(!rig.overlay.wide);
        const QStringList expected =
            startCalls(false) + QStringList{QStringLiteral("audio.stop"), QStringLiteral("overlay.resetToIdle"),
                                            QStringLiteral("menuBar.stopAnimating"), QStringLiteral("overlay.setMode(false)"),
                                            QStringLiteral("transcriber.cancel")};
        QCOMPARE(rig.journal.take(), expected);
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: start FAILED: no microphone")));
        QCOMPARE(rig.transcriber.openSessions, 0);
        // A hands-free start that fails leaves the pill narrow too.
        rig.fire(QStringLiteral("key up"));
        rig.fire(QStringLiteral("chord"));
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(!rig.overlay.wide);
    }

    void transcriberFailureNeverStartsTheMicrophone()
    {
        Rig rig;
        rig.transcriber.startFailure = QStringLiteral("model missing");
        TestSupport::LogMark mark;
        rig.fire(QStringLiteral("key down"));
        QCOMPARE(rig.mode(), Mode::idle);
        QCOMPARE(rig.journal.take(),
                 (QStringList{QStringLiteral("overlay.setMode(false)"), QStringLiteral("overlay.show"),
                              QStringLiteral("transcriber.start"), QStringLiteral("audio.stop"),
                              QStringLiteral("overlay.resetToIdle"), QStringLiteral("menuBar.stopAnimating"),
                              QStringLiteral("overlay.setMode(false)")}));
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: start FAILED: model missing")));
    }

    void endingWhileTheTranscriberStartsLeavesNothingRunning_data()
    {
        QTest::addColumn<QStringList>("events");
        QTest::newRow("key up") << QStringList{QStringLiteral("key up")};
        QTest::newRow("esc") << QStringList{QStringLiteral("esc")};
        QTest::newRow("chord then chord") << QStringList{QStringLiteral("chord"), QStringLiteral("chord")};
    }
    void endingWhileTheTranscriberStartsLeavesNothingRunning()
    {
        QFETCH(QStringList, events);
        Rig rig;
        rig.transcriber.startGate.closed = true;
        rig.fire(QStringLiteral("key down"));
        QCOMPARE(rig.mode(), Mode::hold);  // the handler is suspended in the transcriber's start
        for (const QString& e : events)
            rig.fire(e);
        QCOMPARE(rig.mode(), Mode::idle);
        rig.transcriber.startGate.release();
        rig.settle();
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(!rig.audio.running);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("audio.start")));
        QCOMPARE(rig.transcriber.openSessions, 0);
        QVERIFY(!rig.transcriber.inputContinuation());
        // And the next dictation works normally.
        rig.journal.take();
        rig.fire(QStringLiteral("key down"));
        QCOMPARE(rig.journal.take(), startCalls(false));
        QVERIFY(rig.audio.running);
    }

    void eventsDuringFinishingSeeFinishing()
    {
        Rig rig;
        rig.transcriber.finalText = QStringLiteral("kept");
        rig.enter(QStringLiteral("finishing"));
        rig.fire(QStringLiteral("esc"));
        rig.fire(QStringLiteral("key down"));
        rig.fire(QStringLiteral("chord"));
        QCOMPARE(rig.mode(), Mode::finishing);
        QVERIFY(rig.journal.take().isEmpty());
        rig.transcriber.finishGate.release();
        rig.settle();
        QCOMPARE(rig.mode(), Mode::idle);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("transcriber.cancel")));
    }

    void levelsAreClampedAndRoutedInAnyMode()
    {
        Rig rig;
        std::thread audioThread([&] { rig.audio.onAmplitude(1.7f); });
        audioThread.join();
        QVERIFY(TestSupport::waitUntil([&] { return rig.overlay.amplitude >= 0; }));
        QCOMPARE(rig.overlay.amplitude, 1.0);
        QCOMPARE(rig.menuBar.amplitude, 1.0);
        rig.audio.onAmplitude(-0.25f);
        rig.settle();
        QCOMPARE(rig.overlay.amplitude, 0.0);
        rig.audio.onAmplitude(0.25f);
        rig.settle();
        QCOMPARE(rig.menuBar.amplitude, 0.25);
    }

    void buffersGoToTheOpenSessionOnly()
    {
        Rig rig;
        AudioBuffer block{{16000, 1}, std::vector<float>(1024, 0.1f)};
        rig.audio.onBuffer(block);  // no session: dropped
        rig.fire(QStringLiteral("key down"));
        const auto input = rig.transcriber.input;
        QVERIFY(input);
        std::thread audioThread([&] {
            for (int i = 0; i < 3; ++i)
                rig.audio.onBuffer(block);
        });
        audioThread.join();
        QCOMPARE(input->frames, 3 * 1024);
    }

    void callbacksDoNothingOnceTheDelegateIsGone()
    {
        Rig rig;
        rig.delegate.reset();
        rig.hotkey.onOptionDown();
        rig.overlay.onAccept();
        rig.audio.onAmplitude(0.5f);
        rig.transcriber.onPartial(QStringLiteral("a"), QString());
        rig.settle();
        QVERIFY(rig.journal.calls.isEmpty());
    }
};

QTEST_GUILESS_MAIN(StateMachineTest)
#include "StateMachineTest.moc"
