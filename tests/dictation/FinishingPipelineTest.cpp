// A finished dictation from the transcriber's final text to what lands in the focused window, the
// history file and the log, with the real history and snippet stores.
#include "support/DelegateRig.h"

#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "text/SnippetStore.h"

#include <QFile>
#include <QTest>

using Mode = AppDelegate::Mode;

namespace {

// The texts in the history file, as another run of the program would read them.
QStringList history()
{
    TranscriptStore::shared().waitForWrites();
    QStringList texts;
    for (const TranscriptEntry& entry : TranscriptStore(TranscriptStore::fileURL()).entries())
        texts << entry.text;
    return texts;
}

QStringList insertions(const Journal& journal) { return journal.calls.filter(QStringLiteral("injector.")); }

QString typed(const QString& text) { return QStringLiteral("injector.insertText(%1)").arg(text); }

// partials: "committed|volatile", as live typing receives them; pasteTime: the insertion counts for the next one's leading blank.
struct Outcome { QString setup; QStringList partials; QString said; QStringList inserted; QString saved; bool pasteTime; QString log; };

}  // namespace

class FinishingPipelineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        TranscriptStore::shared().clear();
        TranscriptStore::shared().waitForWrites();
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("Work Email"), QStringLiteral("jane@example.com")}});
    }

    void outcomes_data()
    {
        QTest::addColumn<Outcome>("outcome");
        const auto row = [](const char* name, const Outcome& o) { QTest::newRow(name) << o; };
        const QString pasted = "dictation: pasted=true (leadingSpace=false)", notPasted = "dictation: pasted=false (leadingSpace=false)",
                      blank = "dictation: pasted=true (leadingSpace=true)", plan = "um so the the plan", snippet = "snippet work email",
                      accented150 = QString(149, u'a') + "e\u0301", b150(150, u'b'), ret = "injector.pressReturn";

        row("decoder fails", {"decoder fails", {}, "ignored", {}, {}, false, "dictation: transcription error: decoder crashed"});
        row("blank transcript leaves live text", {"live", {"|uh"}, " \n\t ", {typed("uh")}, {}, false, "dictation: final text length=0"});
        row("trimmed, no Return after a hold", {"auto return", {}, "  pick up milk \n", {typed("pick up milk")}, "pick up milk", true, pasted});
        for (const char* mode : {"tidy", "bullets", "summary"})
            row(mode, {mode, {}, plan, {typed(QString::fromLatin1(mode).toUpper() + '(' + plan + ')')}, plan, true, pasted});
        row("snippet, not cleaned", {"tidy", {}, "Snippet work email.", {typed("jane@example.com")}, "Snippet work email.", true,
            "snippet: expanded command"});
        row("blank within 30 s", {"recent paste", {}, ", second", {typed(" , second")}, ", second", true, blank});
        row("blank before a snippet", {"recent paste", {}, snippet, {typed(" jane@example.com")}, snippet, true, blank});
        row("no blank after 30 s, no Return when off", {"old paste, hands-free", {}, "later", {typed("later")}, "later", true, pasted});
        row("150 characters typed", {"", {}, accented150, {typed(accented150)}, accented150, true, pasted});
        row("151 with the blank pasted", {"recent paste", {}, b150, {"injector.pasteViaClipboard( " + b150 + ')'}, b150, true, blank});
        row("insertion fails", {"cannot insert, auto return, hands-free", {}, "lost", {typed("lost")}, "lost", false, notPasted});
        row("cleanup leaves nothing", {"tidy, model says nothing", {}, "gone", {}, "gone", false, notPasted});
        row("Return after hands-free", {"auto return, hands-free", {}, "hands free", {typed("hands free"), ret}, "hands free", true,
            "dictation: auto-Return"});
        row("live typing corrects", {"tidy, live, auto return, hands-free", {"|I", "|I want", "|I wand to"}, "I want to go",
            {typed("I"), typed(" want"), typed(" to"), QStringLiteral("injector.deleteBackward(0)"), typed(" go"), ret},
            "I want to go", false, "dictation: live-typed 12 chars"});
        row("live-typed snippet replaced", {"live", {"snippet|", "snippet|work email"}, snippet,
            {typed("snippet"), typed(" work email"), QStringLiteral("injector.deleteBackward(18)"), typed("jane@example.com")},
            snippet, false, "dictation: live-typed 18 chars"});
    }

    void outcomes()
    {
        QFETCH(Outcome, outcome);
        const auto& [setup, partials, said, inserted, saved, pasteTime, log] = outcome;
        DelegateRig rig;
        AppDelegate& d = *rig.delegate;
        const auto has = [&](const char* token) { return setup.split(QStringLiteral(", ")).contains(QLatin1String(token)); };
        if (const auto mode = CleanupModes::fromRawValue(setup.section(QLatin1Char(','), 0, 0)))
            Preferences::shared().setCleanupMode(*mode);
        Preferences::shared().setLiveTyping(has("live"));
        Preferences::shared().setAutoReturn(has("auto return"));
        if (has("decoder fails"))
            rig.transcriber.finishFailure = QStringLiteral("decoder crashed");
        rig.injector.succeed = !has("cannot insert");
        if (has("model says nothing"))
            rig.cleanup.answer = QString();
        if (has("recent paste") || has("old paste"))
            d.lastPasteAt = QDateTime::currentDateTimeUtc().addSecs(has("old paste") ? -30 : -1);
        const std::optional<QDateTime> before = d.lastPasteAt;
        rig.transcriber.finalText = said;

        TestSupport::LogMark mark;
        const bool handsFree = has("hands-free");
        rig.fire(handsFree ? QStringLiteral("chord") : QStringLiteral("key down"));
        for (const QString& p : partials)
            rig.transcriber.onPartial(p.section(QLatin1Char('|'), 0, 0), p.section(QLatin1Char('|'), 1));
        rig.fire(handsFree ? QStringLiteral("chord") : QStringLiteral("key up"));
        QVERIFY(TestSupport::waitUntil([&] { return d.mode == Mode::idle; }));
        if (has("auto return") || handsFree)
            QTest::qWait(AppDelegate::returnDelayMs * 2);  // the Return, if any, comes this late

        QCOMPARE(insertions(rig.journal), inserted);
        QCOMPARE(history(), saved.isEmpty() ? QStringList() : QStringList{saved});
        QCOMPARE(d.lastPasteAt != before, pasteTime);
        QVERIFY2(mark.messages().contains(log), qPrintable(mark.messages().join(QLatin1Char('\n'))));
    }

    void armedComparisonTakesTheNextPassageOnly()
    {
        DelegateRig rig;
        AppDelegate& d = *rig.delegate;
        const CompareModel& m = rig.compare.model_;
        auto dictate = [&](const QString& said) {
            rig.transcriber.finalText = said;
            rig.fire(QStringLiteral("key down"));
            rig.fire(QStringLiteral("key up"));
            QVERIFY(TestSupport::waitUntil([&] { return d.mode == Mode::idle; }));
        };
        d.armComparison();
        QVERIFY(m.armed());
        dictate(QStringLiteral("   "));  // silence: stays armed
        QVERIFY(d.compareArmed);
        dictate(QStringLiteral("the passage"));
        QVERIFY(!d.compareArmed && !m.armed());
        QCOMPARE((QStringList{m.raw(), m.tidy(), m.bullets(), m.summary(), m.status()}),
                 (QStringList{"the passage", "TIDY(the passage)", "BULLETS(the passage)", "SUMMARY(the passage)",
                              "Done — compare the four results below. Copy any of them."}));
        QVERIFY(history() == QStringList{"the passage"} && insertions(rig.journal).isEmpty() && !d.lastPasteAt);
        dictate(QStringLiteral("normal again"));
        QCOMPARE(insertions(rig.journal), QStringList{typed(QStringLiteral("normal again"))});
    }
};

QTEST_GUILESS_MAIN(FinishingPipelineTest)
#include "FinishingPipelineTest.moc"
