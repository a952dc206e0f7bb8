// The Settings panes driven as a user drives them: clicks on their buttons and switches, text typed
// into their fields, keys pressed while they are shown.

#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/TestSupport.h"
#include "text/SnippetStore.h"
#include "ui/GeneralPane.h"
#include "ui/HistoryPane.h"
#include "ui/HotkeyTester.h"
#include "ui/SettingsView.h"
#include "ui/TabPill.h"
#include "ui/SnippetsPane.h"
#include "ui/ToggleSwitch.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QToolButton>

#include <qcoro/qcorotimer.h>

using TestSupport::waitUntil;

namespace {

template <typename T>
QList<T*> visibleChildren(QWidget* parent, const QString& name)
{
    QList<T*> out;
    for (T* w : parent->findChildren<T*>(name)) {
        if (w->isVisibleTo(parent))
            out.append(w);
    }
    return out;
}

QStringList triggers(const QList<Snippet>& list)
{
    QStringList out;
    for (const Snippet& s : list)
        out << s.trigger;
    return out;
}

void typeInto(QLineEdit* field, const QString& text)
{
    field->setFocus();
    field->selectAll();
    QTest::keyClicks(field, text);
}

// A key event as the X server delivers it: only the native keycode identifies the key.
void sendKey(QWidget* target, QEvent::Type type, unsigned x11Keycode)
{
    QKeyEvent event(type, Qt::Key_Meta, Qt::NoModifier, x11Keycode, 0, 0);
    QApplication::sendEvent(target, &event);
}

// Clicks "Clear History…" and answers its confirmation with the button named `answer`.
bool clearHistoryAnswering(QWidget* pane, const QString& answer)
{
    QTest::mouseClick(pane->findChild<QToolButton*>(QStringLiteral("clearHistoryButton")), Qt::LeftButton);
    QMessageBox* box = nullptr;
    if (!waitUntil([&] { return (box = pane->findChild<QMessageBox*>(QStringLiteral("clearConfirmation"))) && box->isVisible(); }))
        return false;
    if (box->text() != QStringLiteral("Delete all saved transcripts? This can't be undone."))
        return false;
    for (QAbstractButton* b : box->buttons())
        if (b->text() == answer) {
            QTest::mouseClick(b, Qt::LeftButton);
            return waitUntil([&] { return !pane->findChild<QMessageBox*>(QStringLiteral("clearConfirmation")); });
        }
    return false;
}

TranscriptEntry entry(const QString& timestamp, const QString& text)
{
    return TranscriptEntry{QUuid::createUuid(), timestamp, text};
}

}  // namespace

class PanesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        Preferences::shared().remove(QStringLiteral("snippets"));
        Preferences::shared().setHistoryEnabled(true);
        Preferences::shared().setHistoryRetention(10);
        Preferences::shared().setLiveTyping(false);
        Preferences::shared().setActivationKey(ActivationKey::leftOption);
    }

    void snippetsAddTrimsSavesAndAllowsDuplicates()
    {
        SnippetsPane pane;
        pane.show();
        auto* trigger = pane.findChild<QLineEdit*>(QStringLiteral("triggerField"));
        auto* replacement = pane.findChild<QLineEdit*>(QStringLiteral("replacementField"));
        auto* add = pane.findChild<QToolButton*>(QStringLiteral("addSnippetButton"));
        QVERIFY(visibleChildren<QLabel>(&pane, QStringLiteral("emptySnippetsText")).size() == 1);

        // Blank trigger: nothing is added and both fields keep what was typed.
        typeInto(trigger, QStringLiteral("   "));
        typeInto(replacement, QStringLiteral("me@example.com"));
        QTest::mouseClick(add, Qt::LeftButton);
        QVERIFY(SnippetStore::load().isEmpty());
        QCOMPARE(trigger->text(), QStringLiteral("   "));
        QCOMPARE(replacement->text(), QStringLiteral("me@example.com"));

        // Return in a field adds nothing either.
        typeInto(trigger, QStringLiteral("  Work Email  "));
        QTest::keyClick(trigger, Qt::Key_Return);
        QVERIFY(SnippetStore::load().isEmpty());

        QTest::mouseClick(add, Qt::LeftButton);
        QCOMPARE(triggers(SnippetStore::load()), QStringList{QStringLiteral("Work Email")});
        QCOMPARE(SnippetStore::load().first().replacement, QStringLiteral("me@example.com"));
        QVERIFY(trigger->text().isEmpty());
        QVERIFY(replacement->text().isEmpty());

        typeInto(trigger, QStringLiteral("Work Email"));
        typeInto(replacement, QStringLiteral("other@example.com"));
        QTest::mouseClick(add, Qt::LeftButton);
        QCOMPARE(triggers(SnippetStore::load()), (QStringList{QStringLiteral("Work Email"), QStringLiteral("Work Email")}));
        QCOMPARE(visibleChildren<QWidget>(&pane, QStringLiteral("snippetRow")).size(), 2);
        QVERIFY(visibleChildren<QLabel>(&pane, QStringLiteral("emptySnippetsText")).isEmpty());
    }

    void snippetsDeleteSavesAtOnceAndEmptyStateReturns()
    {
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("a"), QStringLiteral("first")},
                            Snippet{QUuid::createUuid(), QStringLiteral("b"), QStringLiteral("line one\nline two")}});
        SnippetsPane pane;
        pane.show();
        QCOMPARE(visibleChildren<QWidget>(&pane, QStringLiteral("snippetRow")).size(), 2);
        // A replacement of several lines is shown whole.
        bool multiLineShown = false;
        for (QLabel* l : pane.findChildren<QLabel*>())
            multiLineShown |= l->text() == QStringLiteral("line one\nline two");
        QVERIFY(multiLineShown);

        QTest::mouseClick(visibleChildren<QToolButton>(&pane, QStringLiteral("deleteSnippetButton")).first(), Qt::LeftButton);
        QCOMPARE(triggers(SnippetStore::load()), QStringList{QStringLiteral("b")});
        QCOMPARE(visibleChildren<QWidget>(&pane, QStringLiteral("snippetRow")).size(), 1);
        QTest::mouseClick(visibleChildren<QToolButton>(&pane, QStringLiteral("deleteSnippetButton")).first(), Qt::LeftButton);
        QVERIFY(SnippetStore::load().isEmpty());
        QCOMPARE(visibleChildren<QLabel>(&pane, QStringLiteral("emptySnippetsText")).size(), 1);
    }

    void choosingATabAgainReReadsItsData()
    {
        SettingsView view({}, SettingsView::Pane::snippets);
        view.show();
        QVERIFY(qobject_cast<SnippetsPane*>(view.paneWidget())->snippets().isEmpty());
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("t"), QStringLiteral("r")}});
        QTest::mouseClick(view.tabPill(SettingsView::Pane::snippets), Qt::LeftButton);  // already chosen: kept
        QVERIFY(qobject_cast<SnippetsPane*>(view.paneWidget())->snippets().isEmpty());
        QTest::mouseClick(view.tabPill(SettingsView::Pane::general), Qt::LeftButton);
        QVERIFY(qobject_cast<GeneralPane*>(view.paneWidget()));
        QTest::mouseClick(view.tabPill(SettingsView::Pane::snippets), Qt::LeftButton);
        QCOMPARE(triggers(qobject_cast<SnippetsPane*>(view.paneWidget())->snippets()), QStringList{QStringLiteral("t")});
        QCOMPARE(visibleChildren<QWidget>(&view, QStringLiteral("snippetRow")).size(), 1);
    }

    void historyListsNewestFirstAndClearAsksFirst()
    {
        QList<TranscriptEntry> stored = {entry(QStringLiteral("2026-03-14T09:26:53.589Z"), QStringLiteral("older")),
                                         entry(QStringLiteral("not a date"), QStringLiteral("newer"))};
        int clears = 0;
        SettingsServices services;
        services.historyEntries = [&] { return stored; };
        services.clearHistory = [&] {
            ++clears;
            stored.clear();
        };
        HistoryPane pane(services);
        pane.show();
        QCOMPARE(pane.entries().size(), 2);
        QCOMPARE(pane.entries().first().text, QStringLiteral("newer"));
        const auto dates = visibleChildren<QLabel>(&pane, QStringLiteral("historyDate"));
        QCOMPARE(dates.first()->text(), QStringLiteral("not a date"));  // unparsable: shown as stored
        QVERIFY(dates.last()->text().contains(QStringLiteral("2026")));
        QVERIFY(!dates.last()->text().contains(QLatin1Char('T')));

        // A transcript saved meanwhile shows up only after Refresh.
        stored.append(entry(QStringLiteral("2026-03-15T10:00:00.000Z"), QStringLiteral("newest")));
        QCOMPARE(pane.entries().size(), 2);
        QTest::mouseClick(pane.findChild<QToolButton*>(QStringLiteral("refreshButton")), Qt::LeftButton);
        QCOMPARE(pane.entries().first().text, QStringLiteral("newest"));

        QVERIFY(clearHistoryAnswering(&pane, QStringLiteral("Cancel")));
        QCOMPARE(clears, 0);
        QCOMPARE(pane.entries().size(), 3);
        QVERIFY(clearHistoryAnswering(&pane, QStringLiteral("Delete All")));
        QCOMPARE(clears, 1);
        QVERIFY(pane.entries().isEmpty());
        QCOMPARE(visibleChildren<QLabel>(&pane, QStringLiteral("emptyHistoryText")).size(), 1);
    }

    void historySettingsRowsFollowTheSwitchAndClamp()
    {
        Preferences::shared().setHistoryRetention(99);
        SettingsServices services;
        services.historyEntries = [] { return QList<TranscriptEntry>{}; };
        HistoryPane pane(services);
        pane.show();
        auto* up = pane.findChild<QToolButton*>(QStringLiteral("retentionUp"));
        auto* down = pane.findChild<QToolButton*>(QStringLiteral("retentionDown"));
        auto* value = pane.findChild<QLabel*>(QStringLiteral("retentionValue"));
        auto* header = pane.findChild<QLabel*>(QStringLiteral("historyHeader"));
        auto* caption = pane.findChild<QLabel*>(QStringLiteral("historyCaption"));

        QTest::mouseClick(up, Qt::LeftButton);
        QTest::mouseClick(up, Qt::LeftButton);  // already at the top: stays
        QCOMPARE(Preferences::shared().historyRetention(), 100);
        QCOMPARE(value->text(), QStringLiteral("100"));
        QCOMPARE(header->text(), QStringLiteral("Last 100 transcripts"));
        pane.setRetention(0);
        QCOMPARE(Preferences::shared().historyRetention(), 1);
        QVERIFY(!down->isEnabled());

        QCOMPARE(caption->text(), QStringLiteral("Stored on this computer only"));
        QTest::mouseClick(pane.findChild<ToggleSwitch*>(QStringLiteral("historyEnabledSwitch")), Qt::LeftButton);
        QVERIFY(!Preferences::shared().historyEnabled());
        QCOMPARE(caption->text(), QStringLiteral("Nothing is written to disk"));
        QVERIFY(!pane.findChild<QWidget*>(QStringLiteral("retentionStepper"))->isEnabled());
        QTest::mouseClick(up, Qt::LeftButton);  // disabled: no change
        QCOMPARE(Preferences::shared().historyRetention(), 1);
        QTest::mouseClick(pane.findChild<ToggleSwitch*>(QStringLiteral("historyEnabledSwitch")), Qt::LeftButton);
        QVERIFY(pane.findChild<QWidget*>(QStringLiteral("retentionStepper"))->isEnabled());
    }

    void copyMovesTheCopiedMark()
    {
        const QList<TranscriptEntry> stored = {entry(QStringLiteral("2026-03-14T09:26:53.589Z"), QStringLiteral("first text")),
                                               entry(QStringLiteral("2026-03-14T09:27:53.589Z"), QStringLiteral("second text"))};
        SettingsServices services;
        services.historyEntries = [&] { return stored; };
        HistoryPane pane(services);
        pane.show();
        auto labels = [&] {
            QStringList out;
            for (QToolButton* b : visibleChildren<QToolButton>(&pane, QStringLiteral("copyButton")))
                out << b->text();
            return out;
        };
        QCOMPARE(labels(), (QStringList{QStringLiteral("Copy"), QStringLiteral("Copy")}));
        QTest::mouseClick(visibleChildren<QToolButton>(&pane, QStringLiteral("copyButton"))[0], Qt::LeftButton);
        QCOMPARE(labels(), (QStringList{QStringLiteral("Copied"), QStringLiteral("Copy")}));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("second text"));
        QTest::mouseClick(visibleChildren<QToolButton>(&pane, QStringLiteral("copyButton"))[1], Qt::LeftButton);
        QCOMPARE(labels(), (QStringList{QStringLiteral("Copy"), QStringLiteral("Copied")}));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("first text"));
    }

    void testerTurnsGreenForTheChosenKeyOnly()
    {
        QWidget window;
        auto* tester = new HotkeyTester(ActivationKey::rightCommand, &window);
        window.show();
        QCOMPARE(tester->text(), QStringLiteral("Press Right Super to test"));

        sendKey(&window, QEvent::KeyPress, 133);  // Left Super
        QVERIFY(!tester->detected());
        sendKey(&window, QEvent::KeyRelease, 133);
        QVERIFY(!tester->detected());

        sendKey(&window, QEvent::KeyPress, 134);  // Right Super
        QVERIFY(tester->detected());
        QCOMPARE(tester->text(), QStringLiteral("Detected — Right Super works!"));
        // Back to the prompt by itself although nothing else happens.
        QVERIFY(waitUntil([&] { return !tester->detected(); }, 5000));
        QCOMPARE(tester->text(), QStringLiteral("Press Right Super to test"));

        // Changing the key while green: back at once, and the next match uses the new key.
        sendKey(&window, QEvent::KeyPress, 134);
        QVERIFY(tester->detected());
        tester->setKey(ActivationKey::rightControl);
        QVERIFY(!tester->detected());
        sendKey(&window, QEvent::KeyPress, 134);
        QVERIFY(!tester->detected());
        sendKey(&window, QEvent::KeyRelease, 105);
        QVERIFY(tester->detected());

        // Hidden, it watches nothing.
        QVERIFY(waitUntil([&] { return !tester->detected(); }, 5000));
        window.hide();
        sendKey(&window, QEvent::KeyPress, 105);
        QVERIFY(!tester->detected());
    }

    void testerSeesRealKeysFromTheXServer()
    {
        QWidget window;
        window.resize(300, 60);
        auto* tester = new HotkeyTester(ActivationKey::rightControl, &window);
        window.show();
        window.activateWindow();
        QVERIFY(waitUntil([&] { return window.isActiveWindow(); }));
        const auto press = [](const char* keysym) {
            return QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("key"), QString::fromLatin1(keysym)});
        };
        QCOMPARE(press("Control_L"), 0);
        QTest::qWait(300);
        QVERIFY(!tester->detected());
        QCOMPARE(press("Control_R"), 0);
        QVERIFY(waitUntil([&] { return tester->detected(); }));
    }

    void generalPaneCleanupRowAndHowToFollowTheControls()
    {
        Preferences::shared().setCleanupMode(CleanupMode::bullets);
        GeneralPane pane({}, {});
        pane.show();
        auto* caption = pane.findChild<QLabel*>(QStringLiteral("cleanupCaption"));
        auto* picker = pane.findChild<QComboBox*>(QStringLiteral("cleanupPicker"));
        QCOMPARE(caption->text(), CleanupModes::description(CleanupMode::bullets));
        QVERIFY(picker->isEnabled());

        QTest::mouseClick(pane.findChild<ToggleSwitch*>(QStringLiteral("liveTypingSwitch")), Qt::LeftButton);
        QVERIFY(Preferences::shared().liveTyping());
        QCOMPARE(caption->text(), QStringLiteral("Skipped while live typing"));
        QVERIFY(!picker->isEnabled());
        QTest::mouseClick(pane.findChild<ToggleSwitch*>(QStringLiteral("liveTypingSwitch")), Qt::LeftButton);
        QCOMPARE(caption->text(), CleanupModes::description(CleanupMode::bullets));
        QVERIFY(picker->isEnabled());

        auto* howTo = pane.findChild<QLabel*>(QStringLiteral("howToKeyLine"));
        QCOMPARE(howTo->text(), QStringLiteral("Hold Left Alt, speak, release."));
        QSignalSpy keyChanged(&Preferences::shared(), &Preferences::activationKeyChanged);
        auto* keyPicker = pane.findChild<QComboBox*>(QStringLiteral("activationKeyPicker"));
        keyPicker->setFocus();
        QTest::keyClick(keyPicker, Qt::Key_Down);  // the next key: Right Alt
        QCOMPARE(howTo->text(), QStringLiteral("Hold Right Alt (AltGr), speak, release."));
        QCOMPARE(Preferences::shared().activationKey(), ActivationKey::rightOption);
        QCOMPARE(keyChanged.size(), 1);
        QCOMPARE(pane.findChild<HotkeyTester*>()->key(), ActivationKey::rightOption);
    }

    void generalPaneLanguageListLoadsWithoutBlocking()
    {
        Preferences::shared().setLocaleIdentifier(QStringLiteral("xx-YY"));
        SettingsServices services;
        services.supportedLocales = []() -> QCoro::Task<QStringList> {
            QTimer timer;
            timer.start(100);
            co_await timer;
            co_return QStringList{QStringLiteral("en-US"), QStringLiteral("de-DE")};
        };
        GeneralPane pane({}, services);
        pane.show();
        auto* picker = pane.findChild<QComboBox*>(QStringLiteral("languagePicker"));
        // Shown at once, with the current language only.
        QCOMPARE(picker->count(), 1);
        QCOMPARE(picker->itemData(0).toString(), QStringLiteral("xx-YY"));
        QVERIFY(waitUntil([&] { return picker->count() == 3; }));
        QCOMPARE(pane.localeOptions(), (QStringList{QStringLiteral("xx-YY"), QStringLiteral("en-US"), QStringLiteral("de-DE")}));
        QCOMPARE(picker->itemText(0), QStringLiteral("xx-YY"));  // no name known: the identifier
        QCOMPARE(picker->currentIndex(), 0);
        QCOMPARE(GeneralPane::localeDisplayName(QStringLiteral("de-DE")), QStringLiteral("German (Germany)"));

        QSignalSpy localeChanged(&Preferences::shared(), &Preferences::localeChanged);
        picker->setFocus();
        QTest::keyClick(picker, Qt::Key_Down);
        QCOMPARE(Preferences::shared().localeIdentifier(), QStringLiteral("en-US"));
        QCOMPARE(localeChanged.size(), 1);
    }

    void generalPaneShowsWhyCleanupIsUnavailable()
    {
        FakeLlmServer server;
        QVERIFY(server.listen());
        server.models = {QStringLiteral("tiny-model")};
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        CleanupEngine engine;
        SettingsServices services;
        services.cleanupAvailability = [&engine] { return engine.checkAvailability(); };
        GeneralPane pane({}, services);
        pane.show();
        auto* status = pane.findChild<QLabel*>(QStringLiteral("cleanupModelStatus"));
        QVERIFY(waitUntil([&] { return status->text().startsWith(QStringLiteral("Not available")); }, 15000));
        QVERIFY2(status->text().endsWith(QStringLiteral("Cleanup keeps the raw text.")), qPrintable(status->text()));
        QVERIFY2(!status->text().contains(QStringLiteral("..")), qPrintable(status->text()));

        // Typing the running server's address is enough: the line follows by itself.
        auto* endpoint = pane.findChild<QLineEdit*>(QStringLiteral("llmEndpointField"));
        typeInto(endpoint, server.endpoint());
        QCOMPARE(Preferences::shared().value(Settings::llmEndpoint), server.endpoint());
        QVERIFY(waitUntil([&] { return status->text().startsWith(QStringLiteral("Available")); }, 15000));
        QCOMPARE(status->text(), QStringLiteral("Available: tiny-model at ") + server.endpoint());

        // A model the server does not list.
        typeInto(pane.findChild<QLineEdit*>(QStringLiteral("llmModelField")), QStringLiteral("absent-model"));
        QCOMPARE(Preferences::shared().value(Settings::llmModel), QStringLiteral("absent-model"));
        QVERIFY(waitUntil([&] { return status->text().startsWith(QStringLiteral("Not available")); }, 15000));
        Preferences::shared().setValue(Settings::llmEndpoint, QString());
        Preferences::shared().setValue(Settings::llmModel, QString());
    }

    void startAtLoginShowsTheRealState()
    {
        // A file where the autostart folder should be: registering must fail.
        const QString folder = QFileInfo(Preferences::autostartFilePath()).absolutePath();
        QDir().mkpath(QFileInfo(folder).absolutePath());
        QFile blocker(folder);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        {
            GeneralPane pane({}, {});
            pane.show();
            auto* toggle = pane.findChild<ToggleSwitch*>(QStringLiteral("startAtLoginSwitch"));
            QVERIFY(!toggle->isChecked());
            QTest::mouseClick(toggle, Qt::LeftButton);
            QVERIFY(!toggle->isChecked());
            QVERIFY(!Preferences::shared().startAtLogin());
        }
        QVERIFY(QFile::remove(folder));
        GeneralPane pane({}, {});
        pane.show();
        auto* toggle = pane.findChild<ToggleSwitch*>(QStringLiteral("startAtLoginSwitch"));
        QTest::mouseClick(toggle, Qt::LeftButton);
        QVERIFY(toggle->isChecked());
        QVERIFY(Preferences::shared().startAtLogin());
        GeneralPane reopened({}, {});
        QVERIFY(reopened.findChild<ToggleSwitch*>(QStringLiteral("startAtLoginSwitch"))->isChecked());
        QTest::mouseClick(toggle, Qt::LeftButton);
        QVERIFY(!Preferences::shared().startAtLogin());
    }
};

QTEST_MAIN(PanesTest)
#include "PanesTest.moc"
