// Start-up with fakes of every platform piece: where it stops, what the user is shown, and what it
// wires once ready.
#include "app/Bootstrap.h"
#include "app/PermissionPrompt.h"
#include "dictation/AppDelegate.h"
#include "storage/Preferences.h"
#include "support/Fakes.h"
#include "support/TestSupport.h"

#include <QLabel>
#include <QTest>

using TestSupport::waitUntil;

namespace {

// Start-up against fakes, one of which may refuse: "microphone", "speech", "model" or "keyboard".
struct Launch {
    Journal journal;
    AppDelegate delegate;
    QStringList alerts;  // the fatal ones
    std::unique_ptr<Bootstrap> bootstrap;
    std::shared_ptr<bool> microphone = std::make_shared<bool>();

    explicit Launch(const QString& refused = {})
    {
        Bootstrap::Factory f;
        f.menuBar = [this] { return std::make_unique<FakeMenuBar>(journal); };
        f.injector = [this] { return std::make_unique<FakeInjector>(journal); };
        f.overlay = [this] { return std::make_unique<FakeOverlay>(journal); };
        f.audio = [this] { return std::make_unique<FakeAudio>(journal); };
        f.transcriber = [this, refused] {
            auto t = std::make_unique<FakeTranscriber>(journal);
            t->prepareFailure = refused == QLatin1String("model") ? QStringLiteral("no model for xx-XX") : QString();
            return t;
        };
        f.hotkey = [refused] {
            auto h = std::make_unique<FakeHotkey>();
            h->startSucceeds = !refused.startsWith(QLatin1String("keyboard"));
            return h;
        };
        if (refused == QLatin1String("keyboard in Wayland"))
            f.keyMonitorPrompt = &PermissionPrompt::inputDevices;
        *microphone = refused != QLatin1String("microphone");
        f.requestMicrophone = [present = microphone]() -> QCoro::Task<bool> { co_return *present; };
        f.requestSpeech = [refused](AbstractTranscriber&) -> QCoro::Task<bool> { co_return refused != QLatin1String("speech"); };
        f.showBlockingError = [this](const QString& title, const QString&) { alerts << title; };
        bootstrap = std::make_unique<Bootstrap>(delegate, std::move(f));
        bootstrap->applicationDidFinishLaunching();
        waitUntil([this] { return bootstrap->finished() || PermissionPrompt::currentPanel(); });
    }
    // What start-up made and handed to the controller.
    FakeMenuBar* menuBar() const { return static_cast<FakeMenuBar*>(delegate.menuBar); }
    FakeOverlay* overlay() const { return static_cast<FakeOverlay*>(delegate.overlay); }
    FakeTranscriber* transcriber() const { return static_cast<FakeTranscriber*>(delegate.transcriber); }
    FakeHotkey* hotkey() const { return static_cast<FakeHotkey*>(delegate.hotkey); }
};

QString promptTitle()
{
    QWidget* panel = PermissionPrompt::currentPanel();
    return panel ? panel->findChildren<QLabel*>().value(0)->text() : QString();
}

}  // namespace

class BootstrapTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        PermissionPrompt::dismiss();
    }

    void launch_data()
    {
        QTest::addColumn<QString>("refused");
        QTest::addColumn<QString>("lastLog");
        QTest::addColumn<QString>("shown");   // the prompt's title, or the fatal alert's
        QTest::addColumn<bool>("listening");  // the key monitor and the pill are up
        auto row = [](const char* refused, const QString& lastLog, const QString& shown, bool listening) {
            QTest::newRow(*refused ? refused : "ready") << QString::fromUtf8(refused) << lastLog << shown << listening;
        };
        row("", TestSupport::readyLine, "", true);
        row("microphone", "bootstrap: waiting for a microphone…", "Microphone access needed", false);
        row("speech", "bootstrap: speech = false", "Speech Recognition needed", false);
        row("model", "bootstrap: transcriber prepare FAILED: no model for xx-XX", "Speech model unavailable", false);
        row("keyboard", "bootstrap: accessibility missing — prompting + polling", "Enable Tolvane in Accessibility", true);
        row("keyboard in Wayland", "bootstrap: accessibility missing — prompting + polling", "Allow Tolvane to read the keyboard", true);
    }
    void launch()
    {
        QFETCH(QString, refused);
        QFETCH(QString, lastLog);
        QFETCH(QString, shown);
        QFETCH(bool, listening);
        TestSupport::LogMark mark;
        Launch l(refused);
        QCOMPARE(mark.messages().last(), lastLog);
        QCOMPARE(promptTitle().isEmpty() ? l.alerts.value(0) : promptTitle(), shown);
        QVERIFY(l.menuBar()->installed);  // the tray works whatever else does not
        QCOMPARE(l.hotkey() && l.overlay()->installed, listening);
        QCOMPARE(l.bootstrap->finished(), refused != QLatin1String("microphone"));
        if (refused == QLatin1String("microphone")) {
            // A microphone that turns up later (a sound server started late) needs no relaunch.
            QTest::qWait(Bootstrap::microphonePollMs * 3 / 2);
            QVERIFY(!l.bootstrap->finished());
            *l.microphone = true;
            QVERIFY(waitUntil([&] { return l.bootstrap->finished(); }, Bootstrap::microphonePollMs * 3));
            QVERIFY(!mark.messages().filter(QStringLiteral("bootstrap: a microphone appeared after")).isEmpty());
            QCOMPARE(mark.messages().last(), TestSupport::readyLine);
            QVERIFY(!PermissionPrompt::currentPanel());
            return;
        }
        if (!refused.startsWith(QLatin1String("keyboard")))
            return;
        // It keeps asking, and once access is granted it is ready and the prompt goes.
        QVERIFY(waitUntil([&] { return l.hotkey()->startCalls >= 2; }));
        l.hotkey()->startSucceeds = true;
        QVERIFY(waitUntil([&] { return !l.bootstrap->accessibilityPolling(); }));
        QCOMPARE(mark.messages().last(), QStringLiteral("bootstrap: accessibility granted — READY"));
        QVERIFY(waitUntil([] { return !PermissionPrompt::currentPanel(); }));
    }

    void readyLaunchWiresTheControllerAndFollowsSettings()
    {
        Launch l;
        QVERIFY(l.bootstrap->finished());
        // The key monitor, the pill and the tray drive the controller.
        l.hotkey()->onOptionDown();
        QVERIFY(waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::hold; }));
        Preferences::shared().setActivationKey(ActivationKey::rightControl);
        QCOMPARE(l.hotkey()->key, ActivationKey::rightControl);
        // A language chosen mid-dictation is not applied, not even afterwards.
        Preferences::shared().setLocaleIdentifier(QStringLiteral("de-DE"));
        l.overlay()->onCancel();
        QVERIFY(waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::idle; }));
        l.menuBar()->onCompare();
        QVERIFY(l.delegate.compareArmed);
        QTest::qWait(50);
        QCOMPARE(l.transcriber()->prepared, QStringList{QStringLiteral("en-US")});

        TestSupport::LogMark mark;
        Preferences::shared().setLocaleIdentifier(QStringLiteral("fr-FR"));
        QVERIFY(mark.waitFor(QStringLiteral("locale: transcriber re-prepared for fr-FR")));
        l.transcriber()->prepareFailure = QStringLiteral("unsupported");
        Preferences::shared().setLocaleIdentifier(QStringLiteral("xx-XX"));
        QVERIFY(mark.waitFor(QStringLiteral("locale: re-prepare FAILED for xx-XX: unsupported")));
    }
};

QTEST_MAIN(BootstrapTest)
#include "BootstrapTest.moc"
