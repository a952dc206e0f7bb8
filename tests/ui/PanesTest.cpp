// The Settings panes driven as a user drives them: clicks on their buttons and switches, text typed
// into their fields, keys pressed on the X server while they are shown.
#include "UiTest.h"
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/RecordingClient.h"
#include "text/SnippetStore.h"
#include "ui/GeneralPane.h"
#include "ui/HistoryPane.h"
#include "ui/HotkeyTester.h"
#include "ui/SettingsView.h"
#include "ui/TabPill.h"
#include "ui/ToggleSwitch.h"

#include <QClipboard>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTimer>
#include <QToolButton>

#include <X11/keysym.h>
#include <qcoro/qcorotimer.h>

namespace {

// Clicks "Clear History…" and answers its confirmation with the button named `answer`.
void clearHistoryAnswering(QWidget* pane, const char* answer)
{
    click(child(pane, "clearHistoryButton"));
    for (QAbstractButton* b : child<QMessageBox>(pane, "clearConfirmation")->buttons())
        if (b->text() == QLatin1String(answer))
            click(b);
    QVERIFY(waitUntil([&] { return !child(pane, "clearConfirmation"); }));
}

TranscriptEntry entry(const char* timestamp, const char* text)
{
    return {QUuid::createUuid(), QString::fromLatin1(timestamp), QString::fromUtf8(text)};
}

QStringList replacements()
{
    QStringList out;
    for (const Snippet& s : SnippetStore::load())
        out << s.trigger + QStringLiteral(" → ") + s.replacement;
    return out;
}

}  // namespace

class PanesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void snippetsAreAddedAndDeletedAtOnce()
    {
        SettingsView pane({}, SettingsView::Pane::snippets);
        pane.show();
        auto* trigger = child<QLineEdit>(&pane, "triggerField");
        auto* replacement = child<QLineEdit>(&pane, "replacementField");
        QCOMPARE(shown(&pane, "emptySnippetsText").size(), 1);
        // A blank trigger adds nothing and keeps what was typed; Return adds nothing either.
        typeInto(trigger, QStringLiteral("   "));
        typeInto(replacement, QStringLiteral("me@example.com"));
        click(child(&pane, "addSnippetButton"));
        QTest::keyClick(replacement, Qt::Key_Return);
        QVERIFY(replacements().isEmpty() && replacement->text() == QStringLiteral("me@example.com"));
        // Trimmed, saved, the fields emptied; the same trigger twice is allowed.
        for (const char* text : {"me@example.com", "other@example.com"}) {
            typeInto(trigger, QStringLiteral("  Work Email  "));
            typeInto(replacement, QString::fromLatin1(text));
            click(child(&pane, "addSnippetButton"));
            QVERIFY(trigger->text().isEmpty() && replacement->text().isEmpty());
        }
        QCOMPARE(replacements(), (QStringList{QStringLiteral("Work Email → me@example.com"),
                                              QStringLiteral("Work Email → other@example.com")}));
        QVERIFY(shown(&pane, "snippetRow").size() == 2 && shown(&pane, "emptySnippetsText").isEmpty());
        // Deleting saves at once; the empty text returns with the last one gone.
        click(shown(&pane, "deleteSnippetButton").first());
        QCOMPARE(replacements(), QStringList{QStringLiteral("Work Email → other@example.com")});
        click(shown(&pane, "deleteSnippetButton").first());
        QVERIFY(replacements().isEmpty() && shown(&pane, "emptySnippetsText").size() == 1);
        // Choosing the tab again re-reads what another part of Tolvane saved meanwhile.
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("t"), QStringLiteral("r")}});
        click(pane.tabPill(SettingsView::Pane::snippets));  // already chosen: kept as it was
        QVERIFY(shown(&pane, "snippetRow").isEmpty());
        click(pane.tabPill(SettingsView::Pane::general));
        click(pane.tabPill(SettingsView::Pane::snippets));
        QCOMPARE(shown(&pane, "snippetRow").size(), 1);
    }

    void historyListsCopiesAndClears()
    {
        QList<TranscriptEntry> stored = {entry("2026-03-14T09:26:53.589Z", "older"), entry("not a date", "newer")};
        int clears = 0;
        SettingsServices services;
        services.historyEntries = [&] { return stored; };
        services.clearHistory = [&] { ++clears, stored.clear(); };
        Preferences::shared().setHistoryEnabled(true);
        HistoryPane pane(services);
        pane.show();
        const auto dates = shown<QLabel>(&pane, "historyDate");
        QCOMPARE(dates.first()->text(), QStringLiteral("not a date"));  // newest first; unparsable as stored
        QVERIFY(dates.last()->text().contains(QStringLiteral("2026")) && !dates.last()->text().contains(u'T'));
        // Copy puts the text on the clipboard and moves the mark to the button clicked.
        for (int i : {0, 1}) {
            click(shown(&pane, "copyButton")[i]);
            QCOMPARE(QGuiApplication::clipboard()->text(), QLatin1String(i == 0 ? "newer" : "older"));
            const auto buttons = shown<QToolButton>(&pane, "copyButton");
            QVERIFY(buttons[i]->text() == QLatin1String("Copied") && buttons[1 - i]->text() == QLatin1String("Copy"));
        }
        // A transcript saved meanwhile shows up only after Refresh.
        stored << entry("2026-03-15T10:00:00.000Z", "newest");
        QCOMPARE(pane.entries().size(), 2);
        click(child(&pane, "refreshButton"));
        QCOMPARE(pane.entries().first().text, QStringLiteral("newest"));
        // Clearing asks first.
        clearHistoryAnswering(&pane, "Cancel");
        QVERIFY(clears == 0 && pane.entries().size() == 3);
        clearHistoryAnswering(&pane, "Delete All");
        QVERIFY(clears == 1 && shown(&pane, "emptyHistoryText").size() == 1);
        // The number kept stays between 1 and 100; with history off the stepper cannot be used.
        pane.setRetention(99);
        auto* up = child(&pane, "retentionUp");
        click(up), click(up);
        QCOMPARE(Preferences::shared().historyRetention(), 100);
        QCOMPARE(child<QLabel>(&pane, "historyHeader")->text(), QStringLiteral("Last 100 transcripts"));
        pane.setRetention(0);
        QVERIFY(Preferences::shared().historyRetention() == 1 && !child(&pane, "retentionDown")->isEnabled());
        auto* history = child<ToggleSwitch>(&pane, "historyEnabledSwitch");
        click(history);
        QVERIFY(!Preferences::shared().historyEnabled() && !child(&pane, "retentionStepper")->isEnabled());
        click(up);
        QCOMPARE(Preferences::shared().historyRetention(), 1);
        click(history);
        QVERIFY(Preferences::shared().historyEnabled() && child(&pane, "retentionStepper")->isEnabled());
    }

    void testerTurnsGreenForTheChosenKeyOnly()
    {
        QWidget window;
        window.resize(300, 60);
        auto* tester = new HotkeyTester(ActivationKey::rightControl, &window);
        window.show();
        window.activateWindow();
        QVERIFY(waitUntil([&] { return window.isActiveWindow(); }));
        Fingers fingers;
        const auto detected = [&] { return tester->detected(); };
        const auto turnsGreen = [&](unsigned long keysym, bool expected) {
            fingers.tap(fingers.keycodeOf(keysym));
            return waitUntil(detected, expected ? 5000 : 300) == expected;
        };
        QVERIFY(turnsGreen(XK_Control_L, false) && turnsGreen(XK_Control_R, true));
        QVERIFY(tester->text().startsWith(QStringLiteral("Detected")));
        // Back to the prompt by itself although nothing else happens.
        QVERIFY(waitUntil([&] { return !detected(); }));
        // Changing the key while green: back at once, and the next match uses the new key.
        QVERIFY(turnsGreen(XK_Control_R, true));
        tester->setKey(ActivationKey::rightCommand);
        QVERIFY(!detected() && turnsGreen(XK_Control_R, false) && turnsGreen(XK_Super_R, true));
        // Hidden, it watches nothing.
        QVERIFY(waitUntil([&] { return !detected(); }));
        tester->hide();
        QVERIFY(turnsGreen(XK_Super_R, false));
    }

    void generalPaneControlsSaveAndExplainThemselves()
    {
        Preferences::shared().setCleanupMode(CleanupMode::bullets);
        Preferences::shared().setLocaleIdentifier(QStringLiteral("xx-YY"));
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        FakeLlmServer server;
        QVERIFY(server.listen());
        server.models = {QStringLiteral("tiny-model")};
        CleanupEngine engine;
        SettingsServices services;
        services.cleanupAvailability = [&engine] { return engine.checkAvailability(); };
        services.supportedLocales = []() -> QCoro::Task<QStringList> {
            QTimer timer;
            timer.start(100);
            co_await timer;
            co_return QStringList{QStringLiteral("en-US"), QStringLiteral("de-DE")};
        };
        GeneralPane pane({}, services);
        pane.show();
        // The language list is shown at once with the current language only, the others follow.
        auto* languages = child<QComboBox>(&pane, "languagePicker");
        QCOMPARE(languages->count(), 1);
        QVERIFY(waitUntil([&] { return languages->count() == 3; }));
        QCOMPARE(languages->itemText(0), QStringLiteral("xx-YY"));  // no name known: the identifier
        // Pickers save at once and announce the change; the how-to line and the tester follow the key.
        QSignalSpy localeChanged(&Preferences::shared(), &Preferences::localeChanged);
        QSignalSpy keyChanged(&Preferences::shared(), &Preferences::activationKeyChanged);
        for (const char* picker : {"languagePicker", "activationKeyPicker"}) {
            child(&pane, picker)->setFocus();
            QTest::keyClick(child(&pane, picker), Qt::Key_Down);
        }
        QCOMPARE(Preferences::shared().localeIdentifier(), QStringLiteral("en-US"));
        QVERIFY(Preferences::shared().activationKey() == ActivationKey::rightOption &&
                pane.findChild<HotkeyTester*>()->key() == ActivationKey::rightOption);
        QVERIFY(localeChanged.size() == 1 && keyChanged.size() == 1);
        QVERIFY(child<QLabel>(&pane, "howToKeyLine")->text().contains(QStringLiteral("Right Alt")));
        // Live typing skips cleanup: the picker is off while it is on.
        for (const bool live : {true, false}) {
            click(child(&pane, "liveTypingSwitch"));
            QVERIFY(Preferences::shared().liveTyping() == live && child(&pane, "cleanupPicker")->isEnabled() == !live);
            QCOMPARE(child<QLabel>(&pane, "cleanupCaption")->text() == CleanupModes::description(CleanupMode::bullets), !live);
        }
        // The model's status line follows the endpoint and model fields by itself.
        auto* status = child<QLabel>(&pane, "cleanupModelStatus");
        const auto says = [&](const char* start) {
            return waitUntil([&] { return status->text().startsWith(QLatin1String(start)); }, 15000);
        };
        QVERIFY(says("Not available"));
        QVERIFY2(status->text().endsWith(QStringLiteral("Cleanup keeps the raw text.")), qPrintable(status->text()));
        typeInto(child<QLineEdit>(&pane, "llmEndpointField"), server.endpoint());
        QCOMPARE(Preferences::shared().value(Settings::llmEndpoint), server.endpoint());
        QVERIFY(says("Available"));
        QCOMPARE(status->text(), QStringLiteral("Available: tiny-model at ") + server.endpoint());
        typeInto(child<QLineEdit>(&pane, "llmModelField"), QStringLiteral("absent-model"));
        QCOMPARE(Preferences::shared().value(Settings::llmModel), QStringLiteral("absent-model"));
        QVERIFY(says("Not available"));
        // Start at login shows the real state: with a file where the autostart folder should be,
        // registering fails and the switch stays off.
        const QString folder = QFileInfo(Preferences::autostartFilePath()).absolutePath();
        QDir().mkpath(QFileInfo(folder).absolutePath());
        QVERIFY(QFile(folder).open(QIODevice::WriteOnly));
        auto* atLogin = child<ToggleSwitch>(&pane, "startAtLoginSwitch");
        for (const bool works : {false, true}) {
            click(atLogin);
            QVERIFY(atLogin->isChecked() == works && Preferences::shared().startAtLogin() == works);
            if (!works)
                QVERIFY(QFile::remove(folder));
        }
        GeneralPane reopened({}, {});
        QVERIFY(child<ToggleSwitch>(&reopened, "startAtLoginSwitch")->isChecked());
        click(atLogin);
        QVERIFY(!Preferences::shared().startAtLogin());
    }
};

QTEST_MAIN(PanesTest)
#include "PanesTest.moc"
