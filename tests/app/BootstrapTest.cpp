#include "app/Bootstrap.h"
#include "app/PermissionPrompt.h"
#include "dictation/AppDelegate.h"
#include "storage/Preferences.h"
#include "support/Fakes.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QLabel>
#include <QTest>

namespace {

// Start-up against fakes; what it made stays reachable through the raw pointers.
struct Launch {
    Journal journal;
    AppDelegate delegate;
    bool microphone = true;
    bool speech = true;
    bool hotkeyStarts = true;
    QString prepareFailure;
    FakeMenuBar* menuBar = nullptr;
    FakeOverlay* overlay = nullptr;
    FakeAudio* audio = nullptr;
    FakeTranscriber* transcriber = nullptr;
    FakeHotkey* hotkey = nullptr;
    QStringList blockingErrors;
    std::unique_ptr<Bootstrap> bootstrap;

    void run()
    {
        Bootstrap::Factory f;
        f.menuBar = [this] {
            auto m = std::make_unique<FakeMenuBar>(journal);
            menuBar = m.get();
            return m;
        };
        f.injector = [this] { return std::make_unique<FakeInjector>(journal); };
        f.overlay = [this] {
            auto o = std::make_unique<FakeOverlay>(journal);
            overlay = o.get();
            return o;
        };
        f.audio = [this] {
            auto a = std::make_unique<FakeAudio>(journal);
            audio = a.get();
            return a;
        };
        f.transcriber = [this] {
            auto t = std::make_unique<FakeTranscriber>(journal);
            t->prepareFailure = prepareFailure;
            transcriber = t.get();
            return t;
        };
        f.hotkey = [this] {
            auto h = std::make_unique<FakeHotkey>();
            h->startSucceeds = hotkeyStarts;
            hotkey = h.get();
            return h;
        };
        f.requestMicrophone = [this]() -> QCoro::Task<bool> { co_return microphone; };
        f.requestSpeech = [this](AbstractTranscriber&) -> QCoro::Task<bool> { co_return speech; };
        f.showBlockingError = [this](const QString& title, const QString& message) { blockingErrors << title << message; };
        bootstrap = std::make_unique<Bootstrap>(delegate, std::move(f));
        bootstrap->applicationDidFinishLaunching();
        QVERIFY(TestSupport::waitUntil([this] { return bootstrap->finished(); }));
    }
};

QString promptTitle()
{
    QWidget* panel = PermissionPrompt::currentPanel();
    if (!panel)
        return {};
    return panel->findChildren<QLabel*>().value(0)->text();
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

    void readyPathWiresEverything()
    {
        TestSupport::LogMark mark;
        Launch l;
        l.run();
        QCOMPARE(mark.messages(),
                 (QStringList{QStringLiteral("applicationDidFinishLaunching"), QStringLiteral("bootstrap: starting"),
                              QStringLiteral("bootstrap: requesting microphone…"), QStringLiteral("bootstrap: microphone = true"),
                              QStringLiteral("bootstrap: requesting speech…"), QStringLiteral("bootstrap: speech = true"),
                              QStringLiteral("bootstrap: preparing transcriber (en-US)…"),
                              QStringLiteral("bootstrap: transcriber ready."),
                              QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.")}));
        QVERIFY(l.menuBar->installed);
        QVERIFY(l.overlay->installed);
        QCOMPARE(l.transcriber->prepared, QStringList{QStringLiteral("en-US")});
        QCOMPARE(l.audio->format, (std::optional<AudioFormat>{AudioFormat{16000, 1}}));
        QVERIFY(!PermissionPrompt::currentPanel());

        // The key monitor drives the delegate, and follows the activation-key setting.
        l.hotkey->onOptionDown();
        QVERIFY(TestSupport::waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::hold; }));
        Preferences::shared().setActivationKey(ActivationKey::rightControl);
        QCOMPARE(l.hotkey->key, ActivationKey::rightControl);
        // And the pill's buttons too.
        l.overlay->onCancel();
        QVERIFY(TestSupport::waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::idle; }));
    }

    void refusedPermissionStopsWithItsPrompt_data()
    {
        QTest::addColumn<bool>("microphone");
        QTest::addColumn<QString>("lastLog");
        QTest::addColumn<QString>("title");
        QTest::newRow("microphone") << false << QStringLiteral("bootstrap: microphone = false")
                                    << QStringLiteral("Microphone access needed");
        QTest::newRow("speech") << true << QStringLiteral("bootstrap: speech = false") << QStringLiteral("Speech Recognition needed");
    }
    void refusedPermissionStopsWithItsPrompt()
    {
        QFETCH(bool, microphone);
        QFETCH(QString, lastLog);
        QFETCH(QString, title);
        TestSupport::LogMark mark;
        Launch l;
        l.microphone = microphone;
        l.speech = false;
        l.run();
        QCOMPARE(mark.messages().last(), lastLog);
        QCOMPARE(promptTitle(), title);
        QVERIFY(!l.hotkey);
        QVERIFY(!l.overlay);
        QVERIFY(l.menuBar->installed);  // the tray still works
    }

    void failedPreparationIsFatal()
    {
        TestSupport::LogMark mark;
        Launch l;
        l.prepareFailure = QStringLiteral("no model for xx-XX");
        l.run();
        QVERIFY(mark.messages().contains(QStringLiteral("bootstrap: transcriber prepare FAILED: no model for xx-XX")));
        QCOMPARE(l.blockingErrors.value(0), QStringLiteral("Speech model unavailable"));
        QVERIFY(l.blockingErrors.value(1).startsWith(
            QStringLiteral("Could not load the on-device speech model for en-US:\n\nno model for xx-XX\n\n")));
        QVERIFY(!l.hotkey);
    }

    void missingKeyboardAccessPollsUntilGranted()
    {
        TestSupport::LogMark mark;
        Launch l;
        l.hotkeyStarts = false;
        l.run();
        QCOMPARE(mark.messages().last(), QStringLiteral("bootstrap: accessibility missing — prompting + polling"));
        QCOMPARE(promptTitle(), QStringLiteral("Enable Tolvane in Accessibility"));
        QVERIFY(l.bootstrap->accessibilityPolling());
        QVERIFY(TestSupport::waitUntil([&] { return l.hotkey->startCalls >= 3; }));  // keeps trying
        l.hotkey->startSucceeds = true;
        QVERIFY(TestSupport::waitUntil([&] { return !l.bootstrap->accessibilityPolling(); }));
        QCOMPARE(mark.messages().last(), QStringLiteral("bootstrap: accessibility granted — READY"));
        QVERIFY(TestSupport::waitUntil([] { return !PermissionPrompt::currentPanel(); }));
    }

    void languageChangeWaitsForIdleAndIsNotRemembered()
    {
        Launch l;
        l.run();
        l.hotkey->onOptionDown();
        QVERIFY(TestSupport::waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::hold; }));
        Preferences::shared().setLocaleIdentifier(QStringLiteral("de-DE"));
        l.hotkey->onEscape();
        QVERIFY(TestSupport::waitUntil([&] { return l.delegate.mode == AppDelegate::Mode::idle; }));
        QTest::qWait(50);
        QCOMPARE(l.transcriber->prepared, QStringList{QStringLiteral("en-US")});

        TestSupport::LogMark mark;
        Preferences::shared().setLocaleIdentifier(QStringLiteral("fr-FR"));
        QVERIFY(TestSupport::waitUntil([&] { return l.transcriber->prepared.size() == 2; }));
        QVERIFY(TestSupport::waitUntil([&] { return mark.messages().size() == 2; }));
        QCOMPARE(mark.messages(), (QStringList{QStringLiteral("locale: re-preparing transcriber for fr-FR…"),
                                               QStringLiteral("locale: transcriber re-prepared for fr-FR")}));

        l.transcriber->prepareFailure = QStringLiteral("unsupported");
        Preferences::shared().setLocaleIdentifier(QStringLiteral("xx-XX"));
        QVERIFY(TestSupport::waitUntil([&] { return mark.messages().size() == 4; }));
        QCOMPARE(mark.messages().last(), QStringLiteral("locale: re-prepare FAILED for xx-XX: unsupported"));
    }

    void compareMenuArmsTheNextDictation()
    {
        Launch l;
        l.run();
        QVERIFY(!l.delegate.compareArmed);
        l.menuBar->onCompare();
        QVERIFY(l.delegate.compareArmed);
    }
};

QTEST_MAIN(BootstrapTest)
#include "BootstrapTest.moc"
