// The dictation controller's modes, driven through its collaborators' callbacks as the key monitor,
// the pill, the capture and the transcriber deliver them.
#include "support/DelegateRig.h"

#include "storage/Preferences.h"
#include "support/TestSupport.h"

#include <QTest>

#include <thread>

using Mode = AppDelegate::Mode;
struct Transition { QString events; QStringList calls, logs; Mode to; };  // events: "set-up | observed"

namespace {

struct Rig : DelegateRig {
    // Rig events, or a change of circumstance: "settings" (Settings has the keyboard focus), "live"
    // (live typing on), "mic fails", "model fails", "slow start" (the transcriber's start waits),
    // "start opens", "finishes" (the pending finish completes), "partial" (a partial result).
    void play(const QString& list)
    {
        const std::map<QString, std::function<void()>> circumstances{
            {"settings", [&] { settings.key = true; }}, {"live", [] { Preferences::shared().setLiveTyping(true); }},
            {"mic fails", [&] { audio.failure = QStringLiteral("no microphone"); }},
            {"model fails", [&] { transcriber.startFailure = QStringLiteral("model missing"); }},
            {"slow start", [&] { transcriber.startGate.closed = true; }}, {"start opens", [&] { transcriber.startGate.release(); }},
            {"finishes", [&] { transcriber.finishGate.release(); }},
            {"partial", [&] { transcriber.onPartial(QString(), QStringLiteral("word")); }}};
        for (const QString& item : list.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            const auto it = circumstances.find(item.trimmed());
            it != circumstances.end() ? it->second() : fire(item.trimmed());
            settle();
            transcriber.finishGate.closed = true;
        }
    }
};

QStringList startCalls(bool toggle)
{
    return {QStringLiteral("overlay.setMode(%1)").arg(toggle ? "true" : "false"), "overlay.show", "transcriber.start", "audio.start"};
}

}  // namespace

class StateMachineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        Preferences::shared().setLiveTyping(false);
    }

    void transitions_data()
    {
        QTest::addColumn<Transition>("transition");

        const QString down = "hotkey: OPTION DOWN", up = "hotkey: OPTION UP", chord = "hotkey: ⌥+SPACE chord",
                      esc = "hotkey: ESC (discard)", accept = "overlay: INSERT (✓) button clicked",
                      discard = "overlay: DISCARD button clicked", startHold = "dictation: starting (mode=hold)",
                      startToggle = "dictation: starting (mode=toggle)", running = "dictation: audio + transcriber running",
                      dropped = "dictation: DISCARD", finishHold = "dictation: finishing (paste=true, fromToggle=false)",
                      finishToggle = "dictation: finishing (paste=true, fromToggle=true)",
                      endToggle = "dictation: END + PASTE (from toggle)", tapEnds = "state: TOGGLE → END (⌥ tap)",
                      abandoned = "dictation: start abandoned (ended while starting)", cancel = "transcriber.cancel";
        const QStringList finish{"audio.stop", "overlay.beginProcessing", "transcriber.finish"},
            drop{"overlay.setMode(false)", "audio.stop", "overlay.resetToIdle", "menuBar.stopAnimating", cancel},
            failed{"audio.stop", "overlay.resetToIdle", "menuBar.stopAnimating", "overlay.setMode(false)"};
        auto row = [](const QString& events, const QStringList& calls, const QStringList& logs, Mode to) {
            QTest::newRow(qPrintable(events)) << Transition{events, calls, logs, to};
        };

        // From idle; Settings having the focus keeps the keys for itself.
        row("| key down", startCalls(false), {down, startHold, running}, Mode::hold);
        row("settings | key down", {}, {down}, Mode::idle);
        row("| chord", startCalls(true), {chord, startToggle, running}, Mode::toggle);
        row("settings | chord", {}, {chord}, Mode::idle);
        row("| key up, any key, esc, accept, discard", {}, {up, accept, discard}, Mode::idle);
        row("live | partial", {}, {}, Mode::idle);
        // Holding.
        row("key down | key up", finish, {up, finishHold}, Mode::finishing);
        row("key down, settings | key up", finish, {up, finishHold}, Mode::finishing);
        row("key down | chord", {"overlay.setMode(true)"}, {chord, "state: HOLD → TOGGLE (⌥+Space while holding)"}, Mode::toggle);
        row("key down, settings | chord", {}, {chord}, Mode::hold);
        row("key down | esc", drop, {esc, dropped}, Mode::idle);
        row("key down | discard", drop, {discard, dropped}, Mode::idle);
        row("key down | accept", finish, {accept, QStringLiteral("dictation: END + PASTE (from hold)"), finishToggle}, Mode::finishing);
        row("key down | key down, any key", {}, {down}, Mode::hold);
        row("live, key down | partial", {QStringLiteral("injector.insertText(word)")}, {}, Mode::hold);
        row("key down | key up, finishes", finish + QStringList{"injector.insertText(hello there)", "overlay.resetToIdle", "menuBar.stopAnimating"},
            {up, finishHold, "dictation: final text length=11", "dictation: pasted=true (leadingSpace=false)"}, Mode::idle);
        // Hands-free; a hold turned hands-free ignores the release of the key that was held.
        row("chord | key up", finish, {up, tapEnds, endToggle, finishToggle}, Mode::finishing);
        row("key down, chord | key up", {}, {up}, Mode::toggle);
        row("key down, chord, key up | key down, key up", finish, {down, up, tapEnds, endToggle, finishToggle}, Mode::finishing);
        row("chord | chord", finish, {chord, QStringLiteral("state: TOGGLE → END (chord)"), finishToggle}, Mode::finishing);
        row("chord, settings | chord", {}, {chord}, Mode::toggle);
        row("chord | any key", finish, {"hotkey: key during toggle → end + paste", endToggle, finishToggle}, Mode::finishing);
        row("live, chord | any key", {}, {}, Mode::toggle);
        row("chord | esc", drop, {esc, dropped}, Mode::idle);
        // Ended while the key is still down: the flag must not swallow a later dictation's tap.
        for (const char* ending : {"esc", "chord", "accept", "discard", "any key"})
            row(QStringLiteral("key down, chord, %1, finishes, key up, chord | key down, key up").arg(QLatin1String(ending)),
                finish, {down, up, tapEnds, endToggle, finishToggle}, Mode::finishing);
        // Finishing takes no orders.
        row("key down, key up | key down, key up, chord, any key, esc, accept, discard", {}, {down, up, chord, esc, accept, discard}, Mode::finishing);
        // Failed starts leave everything idle, the pill narrow and no session open.
        const QString noMic = "dictation: start FAILED: no microphone";
        row("mic fails | key down", startCalls(false) + failed + QStringList{cancel}, {down, startHold, noMic}, Mode::idle);
        row("mic fails | chord", startCalls(true) + failed + QStringList{cancel}, {chord, startToggle, noMic}, Mode::idle);
        row("model fails | key down", startCalls(false).mid(0, 3) + failed, {down, startHold, "dictation: start FAILED: model missing"}, Mode::idle);
        // Ended while the transcriber was still starting: the microphone never comes on.
        row("slow start, key down | key up, start opens", finish + QStringList{cancel}, {up, finishHold, abandoned}, Mode::finishing);
        row("slow start, key down | esc, start opens", drop + QStringList{cancel}, {esc, dropped, abandoned}, Mode::idle);
        row("slow start, key down, esc, start opens | key down", startCalls(false), {down, startHold, running}, Mode::hold);
    }

    void transitions()
    {
        QFETCH(Transition, transition);
        const auto& [events, calls, logs, to] = transition;

        Rig rig;
        rig.transcriber.finalText = QStringLiteral("  hello there \n");
        rig.transcriber.finishGate.closed = true;  // holds the pipeline in finishing to see it
        rig.play(events.section(QLatin1Char('|'), 0, 0));
        rig.journal.take();
        TestSupport::LogMark mark;
        rig.play(events.section(QLatin1Char('|'), 1));
        QCOMPARE(rig.journal.take(), calls);
        QCOMPARE(mark.messages(), logs);
        QCOMPARE(rig.mode(), to);

        // However it got there, it comes to rest with nothing left running.
        rig.transcriber.startGate.release();
        rig.transcriber.finishGate.release();
        rig.settle();
        QCOMPARE(rig.mode(), to == Mode::finishing ? Mode::idle : to);
        QCOMPARE(rig.audio.running, rig.mode() != Mode::idle);
        if (rig.mode() == Mode::idle)
            QVERIFY(!rig.overlay.wide && rig.transcriber.openSessions == 0 && !rig.transcriber.inputContinuation());
    }

    void collaboratorCallbacks()
    {
        Rig rig;
        // Levels come from the audio thread, clamped, in any mode.
        std::thread([&] { rig.audio.onAmplitude(1.7f); }).join();
        QVERIFY(TestSupport::waitUntil([&] { return rig.menuBar.amplitude == 1.0 && rig.overlay.amplitude == 1.0; }));
        rig.audio.onAmplitude(-0.25f);
        rig.settle();
        QCOMPARE(rig.overlay.amplitude, 0.0);
        // Once the controller is gone, its callbacks do nothing.
        rig.delegate.reset();
        rig.hotkey.onOptionUp();
        rig.audio.onAmplitude(0.5f);
        rig.transcriber.onPartial(QStringLiteral("a"), QString());
        rig.settle();
        QVERIFY(rig.journal.calls.isEmpty());
        QCOMPARE(rig.overlay.amplitude, 0.0);
    }
};

QTEST_GUILESS_MAIN(StateMachineTest)
#include "StateMachineTest.moc"
