// The tray menu and what it opens: the Settings window and its panes, the About window's links and
// the update check, driven on a real X server as a user drives them.
#include "core/Handoff.h"
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/FakeSpeechServer.h"
#include "support/RecordingClient.h"
#include "text/SnippetStore.h"
#include "ui/UiTest.h"
#include "ui/settings/GeneralPane.h"
#include "ui/settings/HistoryPane.h"
#include "ui/settings/HotkeyTester.h"
#include "ui/pill/OverlayController.h"
#include "ui/pill/WaveformPanelView.h"
#include "ui/settings/SettingsWindowController.h"
#include "ui/tray/MenuBarController.h"
#include "ui/tray/UpdateChecker.h"
#include "ui/widgets/TabPill.h"
#include "ui/widgets/ToggleSwitch.h"
#include "ui/windows/AboutView.h"

#include <QClipboard>
#include <QComboBox>
#include <QContextMenuEvent>
#include <QDBusConnection>
#include <QMessageBox>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QLabel>
#include <QMenu>
#include <QSignalSpy>
#include <QScopeGuard>
#include <QSystemTrayIcon>
#include <QThread>
#include <QTimer>

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

// The menu as the user reads it: disabled items marked, separators as "—".
QString seen(const QMenu* menu)
{
    QStringList out;
    for (const QAction* a : menu->actions())
        out << (a->isSeparator() ? QStringLiteral("—") : (a->isEnabled() ? QString() : QStringLiteral("(off) ")) + a->text());
    return out.join(u'|');
}

void clickItem(QMenu* menu, QAction* item)
{
    QTest::mouseMove(menu, menu->actionGeometry(item).center());
    QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(item).center());
}

bool open(QMenu* menu)
{
    menu->popup(QPoint(40, 40));
    return QTest::qWaitForWindowExposed(menu);
}

QString clipboard() { return QGuiApplication::clipboard()->text(); }

// Each sign of a window kept out of the taskbar, as Qt and the window manager see it.
QList<bool> outOfTheTaskbar(QWidget* window)
{
    const QString props = windowProperties(window);
    return {window->windowType() == Qt::Tool, props.contains(QStringLiteral("_NET_WM_WINDOW_TYPE_UTILITY")),
            props.contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR"))};
}

// A feed file in the sandbox, as a file:// address.
QString feedFile(const QByteArray& body)
{
    static int n = 0;
    const QString path = qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + QStringLiteral("/feed-%1").arg(++n);
    return TestSupport::writeFile(path, body) ? QUrl::fromLocalFile(path).toString() : QString();
}

}  // namespace

// The modern tray's registry, as a desktop's panel offers it on the session bus. It answers on a
// thread of its own, as another process would: Qt's blocking calls would otherwise wait on itself.
class StatusNotifierWatcher final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return {}; }
    std::atomic<int> registered{0};
public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString&) { ++registered; }
    void RegisterStatusNotifierHost(const QString&) {}
Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& service);
    void StatusNotifierHostRegistered();
};

// A D-Bus service of the test's own on a connection of its own, answering from its own thread (the
// code under test calls it blocking). Takes `object` and deletes it.
class BusService {
public:
    BusService(QObject* object, const QString& path, const QString& service) : object_(object), name_(service)
    {
        thread_.start();
        object->moveToThread(&thread_);
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, name_);
        // Registered from the object's own thread: what Qt D-Bus attaches to it becomes its child and goes
        // with it (from another thread that parent is refused and the helper object is never freed).
        bool exported = false;
        Handoff::call(object, [&] {
            exported = bus.registerObject(path, object, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties |
                                                            QDBusConnection::ExportAllSignals);
        });
        ok = exported && bus.registerService(service);
    }
    ~BusService()
    {
        // The object goes in its own thread while its connection still stands.
        Handoff::call(object_, [object = object_] { delete object; });
        thread_.quit();
        thread_.wait();
        QDBusConnection::disconnectFromBus(name_);
    }
    bool ok = false;

private:
    QObject* object_;
    QString name_;
    QThread thread_;
};

class NotificationDaemon final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    std::atomic<bool> notified{false};
    QString summary;  // read once notified
public Q_SLOTS:
    uint Notify(const QString&, uint, const QString&, const QString& title, const QString&, const QStringList&, const QVariantMap&, int)
    {
        summary = title;
        notified = true;
        return 1;
    }
};

class WindowsTest : public QObject {
    Q_OBJECT
    using Outcome = UpdateChecker::Result::Outcome;
    struct Check { QString running, feed; Outcome outcome; QString says; };
    MenuBarController bar;
    FakeLlmServer server, silent;  // an HTTP server that is no feed, and one that never answers

private Q_SLOTS:
    void initTestCase()
    {
        bar.install();
        QVERIFY(server.listen() && silent.listen());
        silent.answerModelList = false;
    }

    void snippetsAreAddedAndDeletedAtOnce()
    {
        SettingsView pane({}, SettingsView::Pane::snippets);
        pane.show();
        auto* trigger = child<QLineEdit>(&pane, "triggerField");
        auto* replacement = child<QLineEdit>(&pane, "replacementField");
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
        // Newest first; Copy puts that entry's text on the clipboard.
        for (int i : {0, 1}) {
            click(shown(&pane, "copyButton")[i]);
            QCOMPARE(clipboard(), QLatin1String(i == 0 ? "newer" : "older"));
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
        pane.setRetention(0);
        QVERIFY(Preferences::shared().historyRetention() == 1 && !child(&pane, "retentionDown")->isEnabled());
        auto* history = child<ToggleSwitch>(&pane, "historyEnabledSwitch");
        click(history);
        QVERIFY(!Preferences::shared().historyEnabled() && !child(&pane, "retentionStepper")->isEnabled());
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
        // Hidden, it watches nothing; shown, only the chosen key turns it green.
        tester->hide();
        QVERIFY(turnsGreen(XK_Control_R, false));
        tester->show();
        QVERIFY(turnsGreen(XK_Control_L, false) && turnsGreen(XK_Control_R, true));
        // Back to the prompt by itself although nothing else happens.
        QVERIFY(waitUntil([&] { return !detected(); }));
        // Changing the key while green: back at once, and the next match uses the new key.
        QVERIFY(turnsGreen(XK_Control_R, true));
        tester->setKey(ActivationKey::rightCommand);
        QVERIFY(!detected() && turnsGreen(XK_Control_R, false) && turnsGreen(XK_Super_R, true));
    }

    void generalPaneControlsSaveAndExplainThemselves()
    {
        Preferences::shared().setCleanupMode(CleanupMode::bullets);
        Preferences::shared().setLocaleIdentifier(QStringLiteral("xx-YY"));
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        FakeLlmServer server;
        FakeSpeechServer speech;
        QVERIFY(server.listen() && speech.listen());
        server.models = {QStringLiteral("tiny-model")};
        CleanupEngine engine;
        SettingsServices services;
        services.cleanupAvailability = [&engine] { return engine.checkAvailability(); };
        services.speechAvailability = [] {
            return ServerSpeechEngine::checkAvailability(ServerSpeechEngine::Config::fromPreferences(QStringLiteral("en-US")));
        };
        services.supportedLocales = []() -> QCoro::Task<QStringList> {
            QTimer timer;
            timer.start(100);
            co_await timer;
            co_return QStringList{QStringLiteral("en-US"), QStringLiteral("de-DE")};
        };
        QString keyboardNotice = QStringLiteral("the chord's Space also reaches the application");
        services.keyboardNotice = [&keyboardNotice] { return keyboardNotice; };
        services.offersKey = [](ActivationKey key) { return key != ActivationKey::fn; };
        GeneralPane pane({}, services);
        pane.show();
        // What the key monitor lacks is said under the shortcut, and asked again each time the pane shows.
        auto* notice = child<QLabel>(&pane, "keyboardNotice");
        QVERIFY(notice->isVisible() && notice->text() == keyboardNotice);
        keyboardNotice.clear();
        pane.hide();
        pane.show();
        QVERIFY(!notice->isVisible());
        QCOMPARE(child<QComboBox>(&pane, "activationKeyPicker")->count(), 5);  // no keyboard with Fn
        // The language list is shown at once with the current language only, the others follow.
        auto* languages = child<QComboBox>(&pane, "languagePicker");
        QCOMPARE(languages->count(), 1);
        QVERIFY(waitUntil([&] { return languages->count() == 3; }));
        // Pickers save at once and announce the change; the tester follows the key.
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
        // Live typing skips cleanup: the picker is off while it is on.
        for (const bool live : {true, false}) {
            click(child(&pane, "liveTypingSwitch"));
            QVERIFY(Preferences::shared().liveTyping() == live && child(&pane, "cleanupPicker")->isEnabled() == !live);
        }
        // The model's status line follows the endpoint and model fields by itself.
        auto* status = child<QLabel>(&pane, "cleanupModelStatus");
        const auto says = [&](const char* start) {
            return waitUntil([&] { return status->text().startsWith(QLatin1String(start)); }, 15000);
        };
        QVERIFY(says("Not available"));
        typeInto(child<QLineEdit>(&pane, "llmEndpointField"), server.endpoint());
        QCOMPARE(Preferences::shared().value(Settings::llmEndpoint), server.endpoint());
        QVERIFY(says("Available"));
        typeInto(child<QLineEdit>(&pane, "llmModelField"), QStringLiteral("absent-model"));
        QCOMPARE(Preferences::shared().value(Settings::llmModel), QStringLiteral("absent-model"));
        QVERIFY(says("Not available"));
        // Speech on this computer by default: no server rows. Choosing the server shows them and its status.
        auto* field = child<QLineEdit>(&pane, "speechEndpointField");
        QVERIFY(Preferences::shared().speechEngine() == SpeechEngineKind::pocketsphinx && !field->isVisible());
        child(&pane, "speechEnginePicker")->setFocus();
        QTest::keyClick(child(&pane, "speechEnginePicker"), Qt::Key_Down);
        QVERIFY(Preferences::shared().speechEngine() == SpeechEngineKind::server && field->isVisible());
        status = child<QLabel>(&pane, "speechServerStatus");
        QVERIFY(says("Not available: No server address is set"));
        typeInto(field, speech.whisperEndpoint());
        QCOMPARE(Preferences::shared().value(Settings::speechEndpoint), speech.whisperEndpoint());
        QVERIFY(waitUntil([&] { return status->text() == "Available: whisper.cpp's model at " + speech.whisperEndpoint(); }));
        // Start at login shows the real state: with a file where the autostart folder should be,
        // registering fails and the switch stays off.
        const QString folder = QFileInfo(Preferences::autostartFilePath()).absolutePath();
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
    void settingsWindowKeepsItsTabHidesWhenLeftAndStaysAcrossTheTaskbarSwitch()
    {
        SettingsWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        click(controller.view()->tabPill(SettingsView::Pane::history));
        window->close();
        QVERIFY(waitUntil([&] { return !window->isVisible(); }));
        controller.show();
        QVERIFY(controller.window() == window && controller.view()->tabPill(SettingsView::Pane::history)->selected());
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        // Another window takes the focus and gives it back quickly: the Settings window stays.
        QWidget other;
        other.show();
        other.activateWindow();
        QVERIFY(waitUntil([&] { return other.isActiveWindow() && controller.hidePending(); }));
        controller.show();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow() && !controller.hidePending(); }));
        QVERIFY(!waitUntil([&] { return !window->isVisible(); }, 400));
        // It keeps the focus elsewhere: the Settings window goes away by itself.
        other.activateWindow();
        QVERIFY(waitUntil([&] { return !window->isVisible(); }));
        // The taskbar switch re-creates the window out of (and back into) the taskbar, still in front.
        Preferences::shared().setShowDockIcon(true);
        controller.view()->setPane(SettingsView::Pane::general);
        controller.show();
        for (const bool shown : {false, true}) {
            click(child(window, "taskbarSwitch"));
            QCOMPARE(Preferences::shared().showDockIcon(), shown);
            QVERIFY(waitUntil([&] { return outOfTheTaskbar(window) == QList<bool>(3, !shown) && controller.isKeyWindow(); }));
            QVERIFY(!waitUntil([&] { return !window->isVisible(); }, 400));
        }
    }

    void aboutLinksOnlyToWhatExists()
    {
        // Documents only from a folder holding both, a home page only when set.
        const QString docs = QDir::tempPath() + QStringLiteral("/doc");
        for (const char* name : {"README.md", "copyright"})
            QVERIFY(TestSupport::writeFile(docs + QLatin1Char('/') + QLatin1String(name), {}));
        const auto titles = [](const QList<AboutView::Link>& links) {
            QStringList t;
            for (const AboutView::Link& link : links)
                t << link.title + (AboutView::isOpenableAddress(link.address) ? "" : " (nowhere)");
            return t.join(u',');
        };
        const AboutView::DocumentFolder noLicence{docs, QStringLiteral("LICENSE")};
        QCOMPARE(titles(AboutView::links({}, {noLicence, {docs, QStringLiteral("copyright")}})),
                 QStringLiteral("Read me,Licence"));
        QCOMPARE(titles(AboutView::links(QStringLiteral("https://tolvane.example.org/"), {noLicence})),
                 QStringLiteral("Tolvane home"));
    }

    void outcomes_data()
    {
        QTest::addColumn<Check>("check");
        const auto row = [](const char* name, const char* running, const QString& feed, Outcome outcome, const char* says) {
            QTest::newRow(name) << Check{QString::fromLatin1(running), feed, outcome, QString::fromUtf8(says)};
        };
        // Versions order as releases do.
        row("numeric, not text", "1.0.9", feedFile("1.0.10"), Outcome::newer, "Tolvane 1.0.10 is available; you have 1.0.9.");
        row("older", "1.0.5", feedFile("v1.0.4\n"), Outcome::upToDate, "Tolvane 1.0.5 is the newest version.");
        row("v prefix, missing part", "1.2.0", feedFile("v1.2"), Outcome::upToDate, "newest");
        row("pre-release before its release", "2.0.0", feedFile("2.0.0-rc1"), Outcome::upToDate, "newest");
        row("pre-release after older", "1.9.9", feedFile("2.0.0-rc1"), Outcome::newer, "2.0.0-rc1 is available");
        row("build ignored", "1.0.5", feedFile("1.0.5+build7"), Outcome::upToDate, "newest");
        // Feeds in their usual shapes.
        row("object with notes", "1.0.5", feedFile("{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}"),
            Outcome::newer, "Update it through your package manager.\n\nRelease notes: https://example.org/1.2.0");
        row("release API", "1.0.5", feedFile("{\"tag_name\": \"v1.3.1\", \"html_url\": \"https://x\"}"), Outcome::newer,
            "1.3.1 is available; you have 1.0.5. Update it through your package manager.\n\nRelease notes: https://x");
        row("list, newest wins", "1.2", feedFile("[{\"tag_name\": \"v1.1\"}, {\"tag_name\": \"v1.10\"}, {\"tag_name\": \"nightly\"}]"),
            Outcome::newer, "Tolvane 1.10 is available");
        row("appcast", "1.0.5", feedFile(
            "<?xml version=\"1.0\"?><rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
            "<channel><title>Tolvane</title>"
            "<item><title>Tolvane 1.1.0</title><link>https://example.org/1.1.0</link>"
            "<enclosure url=\"https://example.org/t.tar.gz\" sparkle:version=\"110\" sparkle:shortVersionString=\"1.1.0\"/></item>"
            "<item><sparkle:shortVersionString>1.2.0</sparkle:shortVersionString><link>https://example.org/1.2.0</link></item>"
            "<item><title>Tolvane 0.9</title></item></channel></rss>"),
            Outcome::newer, "Tolvane 1.2.0 is available; you have 1.0.5. Update it through your package manager.\n\n"
            "Release notes: https://example.org/1.2.0");
        // Feeds that name no version.
        row("empty", "1.0.5", feedFile(""), Outcome::unreadable, "empty");
        row("broken JSON", "1.0.5", feedFile("{\"version\": "), Outcome::unreadable, "JSON");
        row("JSON without a version", "1.0.5", feedFile("{\"name\": \"Tolvane\"}"), Outcome::unreadable, "version");
        row("items without versions", "1.0.5", feedFile("<rss><channel><item><title>soon</title></item>"), Outcome::unreadable, "");
        row("a web page", "1.0.5", feedFile("<html><body>Moved</body></html>"), Outcome::unreadable, "names no version");
        // Feeds that cannot be reached, or none at all.
        row("missing page", "1.0.5", server.endpoint() + QStringLiteral("/feed"), Outcome::unreachable, "answered 404");
        row("nobody listens", "1.0.5", FakeLlmServer::closedEndpoint(), Outcome::unreachable, "could not reach");
        row("never answers", "1.0.5", silent.endpoint() + QStringLiteral("/models"), Outcome::unreachable, "no answer");
        row("not http", "1.0.5", QStringLiteral("ftp://127.0.0.1/feed"), Outcome::unreachable, "not an http");
        row("unset", "1.0.5", QStringLiteral(" "), Outcome::notConfigured, "updateFeedUrl");
    }
    void outcomes()
    {
        QFETCH(Check, check);
        const auto& [running, feed, outcome, says] = check;
        UpdateChecker checker(running);
        checker.setTimeout(300);
        const UpdateChecker::Result r = TestSupport::await(checker.check(feed));
        QCOMPARE(r.outcome, outcome);
        QVERIFY2(r.message.contains(says), qPrintable(r.message));
    }

    void theUsersCheckReadsTheSettingAndShowsTheAnswer()
    {
        Preferences::shared().setValue(Settings::updateFeedUrl, server.endpoint() + QStringLiteral("/models"));
        server.requests.clear();
        UpdateChecker checker(QStringLiteral("1.0.5"));
        checker.checkAndReport();
        QVERIFY(checker.isChecking());
        checker.checkAndReport();  // a second click while checking starts nothing new
        QVERIFY(waitUntil([&] { return checker.reportBox() && checker.reportBox()->isVisible(); }));
        QVERIFY(checker.reportBox()->text().contains(QStringLiteral("names no version")));
        QVERIFY(server.requests.size() == 1 && !waitUntil([&] { return server.requests.size() > 1; }, 50));
    }

    void longTranscriptTitlesAreCutBetweenCharacters()
    {
        // "é" as e + combining accent is one character to a reader; so is a family emoji of seven code points.
        QString sixty;
        for (int i = 0; i < 30; ++i)
            sixty += QStringLiteral("e\u0301\U0001F468\u200D\U0001F469\u200D\U0001F467");
        QCOMPARE(MenuBarController::menuTitle(sixty), sixty);
        QCOMPARE(MenuBarController::menuTitle(sixty + QStringLiteral("e\u0301")), sixty + QStringLiteral("…"));
    }

    void recentTranscriptsNewestFirstAndCopiedOnClick()
    {
        Preferences::shared().setHistoryEnabled(true);
        Preferences::shared().setHistoryRetention(10);
        bar.rebuildRecentMenu();
        QCOMPARE(seen(bar.recentMenu()), QStringLiteral("(off) No transcripts yet"));
        QGuiApplication::clipboard()->setText(QStringLiteral("before"));
        TranscriptStore::shared().append(QStringLiteral("older"));
        TranscriptStore::shared().append(QStringLiteral("line one\nline two & more"));
        // Open the menu as a user does; the submenu is filled as it opens.
        QVERIFY(open(bar.menu()));
        clickItem(bar.menu(), bar.recentMenu()->menuAction());
        QVERIFY(waitUntil([&] { return bar.recentMenu()->isVisible(); }));
        QVERIFY(QTest::qWaitForWindowExposed(bar.recentMenu()));
        QCOMPARE(seen(bar.recentMenu()), QStringLiteral("(off) Click to copy|—|line one line two && more|older"));
        QCOMPARE(bar.recentMenu()->actions()[2]->toolTip(), QStringLiteral("line one\nline two & more"));
        clickItem(bar.recentMenu(), bar.recentMenu()->actions().first());  // the header copies nothing
        QVERIFY(!waitUntil([] { return clipboard() != QStringLiteral("before"); }, 50));
        clickItem(bar.recentMenu(), bar.recentMenu()->actions().at(2));
        QVERIFY(waitUntil([] { return clipboard() == QStringLiteral("line one\nline two & more"); }));
        QVERIFY(waitUntil([&] { return !bar.menu()->isVisible(); }));
        // A transcript saved while the menu was closed comes first the next time it opens.
        TranscriptStore::shared().append(QStringLiteral("newest"));
        QVERIFY(open(bar.menu()));
        QCOMPARE(bar.recentMenu()->actions().at(2)->text(), QStringLiteral("newest"));
        bar.menu()->close();
        TranscriptStore::shared().waitForWrites();
    }

    void withoutATrayTheMenuIsOnThePillUntilATrayStarts()
    {
        // This test's desktop has no tray: the menu opens from the pill, and the user is told once.
        QVERIFY(!bar.hasTray());
        OverlayController pill;
        pill.onContextMenu = [this](const QPoint& at) { bar.popUpMenu(at); };
        pill.installPersistent();
        QWidget* view = pill.panel()->findChild<WaveformPanelView*>();
        QContextMenuEvent rightClick(QContextMenuEvent::Mouse, QPoint(10, 10), view->mapToGlobal(QPoint(10, 10)));
        QApplication::sendEvent(view, &rightClick);
        QVERIFY(waitUntil([&] { return bar.menu()->isVisible(); }));
        bar.menu()->close();
        qputenv("XDG_CURRENT_DESKTOP", "ubuntu:GNOME");
        const auto notices = [] {
            QStringList texts;
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible())
                    texts << box->text();
            return texts;
        };
        for (int launch = 0; launch < 2; ++launch) {
            MenuBarController other;
            other.noTrayNoticeDelayMs = 0;
            other.install();
            QTest::qWait(100);
        }
        QCOMPARE(notices().size(), 1);
        QVERIFY(notices().first().contains(QStringLiteral("gnome-shell-extension-appindicator")));

        // In a Wayland session, where the compositor may focus any new window, the user is told by a
        // desktop notification, which takes no keys.
        Preferences::shared().setValue(Settings::noTrayExplained, false);
        qputenv("XDG_SESSION_TYPE", "wayland");
        const auto x11Again = qScopeGuard([] { qunsetenv("XDG_SESSION_TYPE"); });
        auto* daemon = new NotificationDaemon;
        {
            const BusService notifications(daemon, QStringLiteral("/org/freedesktop/Notifications"), QStringLiteral("org.freedesktop.Notifications"));
            QVERIFY2(notifications.ok, "no private session bus");
            MenuBarController third;
            third.noTrayNoticeDelayMs = 0;
            third.install();
            QVERIFY(waitUntil([&] { return daemon->notified.load(); }));
            QCOMPARE(daemon->summary, QStringLiteral("Tolvane's menu is on the pill"));
            QCOMPARE(notices().size(), 1);  // still only the X11 session's box
        }

        // A panel with a tray starts: the icon registers with it, no relaunch needed.
        auto* watcher = new StatusNotifierWatcher;
        const BusService panel(watcher, QStringLiteral("/StatusNotifierWatcher"), QStringLiteral("org.kde.StatusNotifierWatcher"));
        QVERIFY2(panel.ok, "no private session bus");
        bool appeared = false;
        bar.onTrayAppeared = [&] { appeared = true; };
        QVERIFY(waitUntil([&] { return watcher->registered > 0; }));
        QVERIFY(appeared && bar.hasTray() && !bar.trayIcon()->icon().isNull());
    }

    void itemsAndShortcutsReachTheirCallbacks()
    {
        QStringList called;
        const auto triggerAllButQuit = [&] {
            for (QAction* a : bar.menu()->actions())
                if (a->shortcut() != QKeySequence(Qt::CTRL | Qt::Key_Q))
                    a->trigger();
        };
        triggerAllButQuit();  // unset callbacks do nothing
        const auto note = [&](const char* what) { return [&called, what] { called << QLatin1String(what); }; };
        bar.onAbout = note("about"), bar.onOpenSettings = note("settings");
        bar.onCheckForUpdates = note("updates"), bar.onCompare = note("compare");
        triggerAllButQuit();
        QCOMPARE(called.join(u' '), QStringLiteral("about settings updates compare"));
        // Ctrl+, and Ctrl+Q answer while the menu is open; Quit ends the application's loop with 0.
        QVERIFY(open(bar.menu()));
        QTest::keyClick(bar.menu(), Qt::Key_Comma, Qt::ControlModifier);
        QCOMPARE(called.join(u' '), QStringLiteral("about settings updates compare settings"));
        QVERIFY(open(bar.menu()));
        QTest::keyClick(bar.menu(), Qt::Key_Q, Qt::ControlModifier);
        QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(1); });
        QCOMPARE(QCoreApplication::exec(), 0);
    }
};

QTEST_MAIN(WindowsTest)
#include "WindowsTest.moc"
