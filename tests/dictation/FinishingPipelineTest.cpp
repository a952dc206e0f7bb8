// A finished dictation from the transcriber's final text to what lands in the focused window, the
// history file and the log, with the real history and snippet stores; keyboard, audio and the
// language model are faked in most cases; one case talks to a real model server on loopback.
#include "dictation/AppDelegate.h"
#include "dictation/CompareModel.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/FakeLlmServer.h"
#include "support/DelegateRig.h"
#include "support/TestSupport.h"
#include "text/CleanupEngine.h"
#include "text/SnippetStore.h"

#include <QFile>
#include <QTest>

using Mode = AppDelegate::Mode;

namespace {

QStringList historyTexts()
{
    TranscriptStore::shared().waitForWrites();
    QFile file(TranscriptStore::fileURL());
    QStringList out;
    if (!file.open(QIODevice::ReadOnly))
        return out;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.isEmpty())
            continue;
        out << QString::fromUtf8(line);
    }
    return out;
}

struct Rig : DelegateRig {
    AppDelegate& delegate = *DelegateRig::delegate;

    // One whole dictation: held and released, or hands-free and ended with a tap.
    void dictate(const QString& finalText, bool handsFree = false)
    {
        transcriber.finalText = finalText;
        if (handsFree) {
            hotkey.onToggleChord();
            settle();
            hotkey.onOptionDown();
            settle();
        } else {
            hotkey.onOptionDown();
            settle();
        }
        hotkey.onOptionUp();
        QVERIFY(TestSupport::waitUntil([this] { return delegate.mode == Mode::idle; }));
    }

    QStringList insertions() const
    {
        QStringList out;
        for (const QString& call : journal.calls) {
            if (call.startsWith(QLatin1String("injector.")))
                out << call;
        }
        return out;
    }
};

QString typed(const QString& text) { return QStringLiteral("injector.insertText(%1)").arg(text); }
QString pasted(const QString& text) { return QStringLiteral("injector.pasteViaClipboard(%1)").arg(text); }

}  // namespace

class FinishingPipelineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        TranscriptStore::shared().clear();
        TranscriptStore::shared().waitForWrites();
    }

    void transcriptionErrorInsertsAndSavesNothing()
    {
        Rig rig;
        rig.transcriber.finishFailure = QStringLiteral("decoder crashed");
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("ignored"));
        QVERIFY(rig.insertions().isEmpty());
        QVERIFY(historyTexts().isEmpty());
        QVERIFY(!rig.delegate.lastPasteAt);
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: transcription error: decoder crashed")));
        QCOMPARE(rig.journal.calls.mid(rig.journal.calls.size() - 2),
                 (QStringList{QStringLiteral("overlay.resetToIdle"), QStringLiteral("menuBar.stopAnimating")}));
    }

    void emptyTranscriptChangesNothing()
    {
        Rig rig;
        Preferences::shared().setLiveTyping(true);
        rig.transcriber.finalText = QStringLiteral(" \n\t ");
        rig.hotkey.onOptionDown();
        rig.settle();
        rig.delegate.handlePartial(QString(), QStringLiteral("uh"));  // live typing already typed something
        TestSupport::LogMark mark;
        rig.hotkey.onOptionUp();
        QVERIFY(TestSupport::waitUntil([&] { return rig.delegate.mode == Mode::idle; }));
        QCOMPARE(rig.insertions(), QStringList{typed(QStringLiteral("uh"))});  // left as it is
        QVERIFY(historyTexts().isEmpty());
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: final text length=0")));
    }

    void rawModeTypesTheTrimmedTranscript()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("  pick up milk \n"));
        QCOMPARE(rig.insertions(), QStringList{typed(QStringLiteral("pick up milk"))});
        QVERIFY2(rig.cleanup.calls.isEmpty(), qPrintable(rig.cleanup.calls.join(QLatin1Char('|'))));
        QCOMPARE(historyTexts().size(), 1);
        QVERIFY(historyTexts().first().contains(QStringLiteral("\"text\":\"pick up milk\"")));
        QVERIFY(rig.delegate.lastPasteAt);
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: final text length=12")));
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: pasted=true (leadingSpace=false)")));
    }

    void cleanupModesInsertTheCleanedTextAndSaveTheSpokenOne_data()
    {
        QTest::addColumn<CleanupMode>("mode");
        QTest::newRow("tidy") << CleanupMode::tidy;
        QTest::newRow("bullets") << CleanupMode::bullets;
        QTest::newRow("summary") << CleanupMode::summary;
    }
    void cleanupModesInsertTheCleanedTextAndSaveTheSpokenOne()
    {
        QFETCH(CleanupMode, mode);
        Rig rig;
        Preferences::shared().setCleanupMode(mode);
        rig.dictate(QStringLiteral("um so the the plan"));
        const QString cleaned = CleanupModes::rawValue(mode).toUpper() + QStringLiteral("(um so the the plan)");
        QCOMPARE(rig.insertions(), QStringList{typed(cleaned)});
        QVERIFY(historyTexts().first().contains(QStringLiteral("\"text\":\"um so the the plan\"")));
        QVERIFY(rig.delegate.lastPasteAt);
    }

    void tidyThroughARealServerOnLoopback()
    {
        FakeLlmServer server;
        QVERIFY(server.listen());
        server.configureCleanup();
        server.chat = [](const QJsonObject&) { return FakeLlmServer::answer(QStringLiteral("<<<BEGIN TEXT>>>\nThe plan.\n<<<END TEXT>>>")); };
        Rig rig;
        CleanupEngine engine;
        rig.delegate.cleanup = &engine;
        Preferences::shared().setCleanupMode(CleanupMode::tidy);
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("um so the the plan"));
        QCOMPARE(rig.insertions(), QStringList{typed(QStringLiteral("The plan."))});
        QCOMPARE(server.chatRequests().size(), 1);
        QVERIFY(mark.messages().contains(QStringLiteral("cleanup: mode=tidy in=18 out=9")));

        // The server gone: the transcript goes in as spoken.
        server.configureCleanup();
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        rig.dictate(QStringLiteral("still typed"));
        QCOMPARE(rig.insertions().last(), typed(QStringLiteral(" still typed")));
        QVERIFY(mark.messages().contains(QStringLiteral("cleanup: model unavailable — pasting raw")));
    }

    void snippetCommandInsertsTheReplacement()
    {
        Rig rig;
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("Work Email"), QStringLiteral("jane@example.com")}});
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("Snippet work email."));
        QCOMPARE(rig.insertions(), QStringList{typed(QStringLiteral("jane@example.com"))});
        QVERIFY(rig.cleanup.calls.isEmpty());  // no cleanup of a replacement
        QVERIFY(historyTexts().first().contains(QStringLiteral("\"text\":\"Snippet work email.\"")));
        QVERIFY(mark.messages().contains(QStringLiteral("snippet: expanded command")));
        QVERIFY(rig.delegate.lastPasteAt);
    }

    void leadingBlankWithinThirtySeconds()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        rig.dictate(QStringLiteral("first"));  // the first after launch never gets one
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral(", second"));  // even before punctuation
        QCOMPARE(rig.insertions(), (QStringList{typed(QStringLiteral("first")), typed(QStringLiteral(" , second"))}));
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: pasted=true (leadingSpace=true)")));

        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("sig"), QStringLiteral("Best, Jane")}});
        rig.dictate(QStringLiteral("snippet sig"));
        QCOMPARE(rig.insertions().last(), typed(QStringLiteral(" Best, Jane")));

        rig.delegate.lastPasteAt = QDateTime::currentDateTimeUtc().addSecs(-30);
        rig.dictate(QStringLiteral("later"));
        QCOMPARE(rig.insertions().last(), typed(QStringLiteral("later")));
    }

    void typingLimitCountsCharactersAndTheBlank()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        const QString accented150 = QString(149, QLatin1Char('a')) + QStringLiteral("e\u0301");  // 150 characters, 151 code units
        rig.dictate(accented150);
        QCOMPARE(rig.insertions().last(), typed(accented150));
        rig.dictate(QString(150, QLatin1Char('b')));  // the leading blank makes it 151
        QCOMPARE(rig.insertions().last(), pasted(QLatin1Char(' ') + QString(150, QLatin1Char('b'))));
    }

    void failedInsertionKeepsHistoryButNotTheTime()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        Preferences::shared().setAutoReturn(true);
        rig.injector.succeed = false;
        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("lost"), true);
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: pasted=false (leadingSpace=false)")));
        QCOMPARE(historyTexts().size(), 1);
        QVERIFY(!rig.delegate.lastPasteAt);
        QTest::qWait(AppDelegate::returnDelayMs * 3);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("injector.pressReturn")));

        // A cleanup that leaves nothing is not inserted at all and counts as a failure.
        rig.injector.succeed = true;
        Preferences::shared().setCleanupMode(CleanupMode::tidy);
        rig.cleanup.answer = QString();
        rig.dictate(QStringLiteral("gone"));
        QVERIFY(!rig.delegate.lastPasteAt);
        QVERIFY(!rig.insertions().contains(typed(QString())));
    }

    void autoReturnOnlyAfterHandsFree()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        Preferences::shared().setAutoReturn(true);
        rig.dictate(QStringLiteral("held"));
        QTest::qWait(AppDelegate::returnDelayMs * 3);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("injector.pressReturn")));

        TestSupport::LogMark mark;
        rig.dictate(QStringLiteral("hands free"), true);
        QVERIFY(!rig.journal.calls.contains(QStringLiteral("injector.pressReturn")));  // not yet: it waits
        QVERIFY(TestSupport::waitUntil([&] { return rig.journal.calls.contains(QStringLiteral("injector.pressReturn")); }));
        QCOMPARE(rig.insertions().mid(rig.insertions().size() - 2),
                 (QStringList{typed(QStringLiteral(" hands free")), QStringLiteral("injector.pressReturn")}));
        QCOMPARE(mark.messages().last(), QStringLiteral("dictation: auto-Return"));

        Preferences::shared().setAutoReturn(false);
        rig.dictate(QStringLiteral("no return"), true);
        QTest::qWait(AppDelegate::returnDelayMs * 3);
        QCOMPARE(rig.journal.calls.count(QStringLiteral("injector.pressReturn")), 1);
    }

    void liveTypingCorrectsWhatWasTyped()
    {
        Rig rig;
        Preferences::shared().setLiveTyping(true);
        Preferences::shared().setAutoReturn(true);
        rig.hotkey.onToggleChord();
        rig.settle();
        // Partials arrive off the GUI thread through the transcriber's callback.
        rig.transcriber.onPartial(QString(), QStringLiteral("I"));
        rig.transcriber.onPartial(QString(), QStringLiteral("I want"));
        rig.transcriber.onPartial(QString(), QStringLiteral("I wand to"));
        rig.settle();
        QCOMPARE(rig.injector.screen, QStringLiteral("I want to"));
        rig.hotkey.onAnyKey();  // live typing on: other keys do not end it
        rig.settle();
        QCOMPARE(rig.delegate.mode, Mode::toggle);
        rig.transcriber.finalText = QStringLiteral("I want to go");
        TestSupport::LogMark mark;
        rig.hotkey.onToggleChord();
        QVERIFY(TestSupport::waitUntil([&] { return rig.delegate.mode == Mode::idle; }));
        QCOMPARE(rig.injector.screen, QStringLiteral("I want to go"));
        QVERIFY(rig.cleanup.calls.isEmpty());  // the cleanup mode has no effect
        QVERIFY(!rig.delegate.lastPasteAt);
        QVERIFY(historyTexts().first().contains(QStringLiteral("\"text\":\"I want to go\"")));
        QVERIFY(mark.messages().contains(QStringLiteral("dictation: live-typed 12 chars")));
        QVERIFY(TestSupport::waitUntil([&] { return rig.injector.screen.endsWith(QLatin1Char('\n')); }));
        QVERIFY(!mark.messages().contains(QStringLiteral("dictation: auto-Return")));
        QVERIFY(rig.delegate.screenText.isEmpty());
    }

    void liveTypedSnippetIsReplaced()
    {
        Rig rig;
        Preferences::shared().setLiveTyping(true);
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("address"), QStringLiteral("1 Main St")}});
        rig.hotkey.onOptionDown();
        rig.settle();
        rig.transcriber.onPartial(QStringLiteral("snippet address"), QString());
        rig.settle();
        QCOMPARE(rig.injector.screen, QStringLiteral("snippet address"));
        rig.transcriber.finalText = QStringLiteral("snippet address");
        rig.hotkey.onOptionUp();
        QVERIFY(TestSupport::waitUntil([&] { return rig.delegate.mode == Mode::idle; }));
        QCOMPARE(rig.injector.screen, QStringLiteral("1 Main St"));
        QVERIFY(historyTexts().first().contains(QStringLiteral("\"text\":\"snippet address\"")));
    }

    void partialsInIdleTypeNothing()
    {
        Rig rig;
        Preferences::shared().setLiveTyping(true);
        rig.delegate.handlePartial(QStringLiteral("stray"), QString());
        QVERIFY(rig.insertions().isEmpty());
    }

    void armedComparisonTakesTheNextPassageOnly()
    {
        Rig rig;
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        rig.delegate.armComparison();
        rig.delegate.armComparison();  // twice: still one armed comparison, model waiting and empty
        QCOMPARE(rig.compare.arms, 2);
        QVERIFY(rig.compare.model_.armed());
        QCOMPARE(rig.compare.model_.status(), CompareModel::instructionText());

        rig.dictate(QStringLiteral("   "));  // silence: stays armed
        QVERIFY(rig.delegate.compareArmed);

        QStringList statuses;
        connect(&rig.compare.model_, &CompareModel::statusChanged, this,
                [&] { statuses << rig.compare.model_.status(); });
        rig.dictate(QStringLiteral("the passage"));
        QVERIFY(rig.insertions().isEmpty());
        QVERIFY(!rig.delegate.compareArmed);
        const CompareModel& m = rig.compare.model_;
        QVERIFY(!m.armed());
        QCOMPARE(m.raw(), QStringLiteral("the passage"));
        QCOMPARE(m.tidy(), QStringLiteral("TIDY(the passage)"));
        QCOMPARE(m.bullets(), QStringLiteral("BULLETS(the passage)"));
        QCOMPARE(m.summary(), QStringLiteral("SUMMARY(the passage)"));
        QCOMPARE(rig.cleanup.calls, (QStringList{QStringLiteral("tidy:the passage"), QStringLiteral("bullets:the passage"),
                                                 QStringLiteral("summary:the passage")}));
        QCOMPARE(statuses, (QStringList{QStringLiteral("Cleaning up on-device… (Tidy)"),
                                        QStringLiteral("Cleaning up on-device… (Bullets)"),
                                        QStringLiteral("Cleaning up on-device… (Summary)"),
                                        QStringLiteral("Done — compare the four results below. Copy any of them.")}));
        QCOMPARE(historyTexts().size(), 1);
        QVERIFY(!rig.delegate.lastPasteAt);

        rig.dictate(QStringLiteral("normal again"));
        QCOMPARE(rig.insertions(), QStringList{typed(QStringLiteral("normal again"))});
    }

    void discardTouchesNeitherHistoryNorTime()
    {
        Rig rig;
        rig.hotkey.onOptionDown();
        rig.settle();
        rig.hotkey.onEscape();
        rig.settle();
        QCOMPARE(rig.delegate.mode, Mode::idle);
        QVERIFY(historyTexts().isEmpty());
        QVERIFY(!rig.delegate.lastPasteAt);
    }
};

QTEST_GUILESS_MAIN(FinishingPipelineTest)
#include "FinishingPipelineTest.moc"
