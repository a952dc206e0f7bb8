// The Settings, comparison and About windows on a real X server: built once and kept, the Settings
// window's self-hiding, the comparison window's arming, and the size rules.

#include "dictation/CompareModel.h"
#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "ui/AboutView.h"
#include "ui/AboutWindowController.h"
#include "ui/CompareView.h"
#include "ui/CompareWindowController.h"
#include "ui/SettingsView.h"
#include "ui/SettingsWindowController.h"
#include "ui/TabPill.h"
#include "ui/Theme.h"
#include "ui/ToggleSwitch.h"

#include <QApplication>
#include <QLabel>
#include <QProcess>
#include <QTest>
#include <QWindow>

using TestSupport::waitUntil;

namespace {

// The window type and state the X server holds for a window, as a window manager reads them.
QString windowTypes(QWidget* window)
{
    QProcess xprop;
    xprop.start(QStringLiteral("xprop"), {QStringLiteral("-id"), QString::number(window->winId()),
                                          QStringLiteral("_NET_WM_WINDOW_TYPE"), QStringLiteral("_NET_WM_STATE")});
    xprop.waitForFinished(5000);
    return QString::fromUtf8(xprop.readAllStandardOutput());
}

}  // namespace

class WindowsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void sizeRules()
    {
        QCOMPARE(SettingsView::contentHeight(1000), 804);
        QCOMPARE(SettingsView::contentHeight(600), 576);
        QCOMPARE(SettingsView::contentHeight(400), 420);
        QCOMPARE(SettingsView::contentHeight(std::nullopt), 780);
        QCOMPARE(CompareWindowController::contentHeight(700), 676);
        QCOMPARE(CompareWindowController::contentHeight(1000), 760);
        QCOMPARE(CompareWindowController::contentHeight(300), 420);
        QCOMPARE(CompareWindowController::contentHeight(std::nullopt), 736);
    }

    void settingsWindowIsBuiltOnceAndKeepsItsTab()
    {
        SettingsWindowController controller;
        QVERIFY(!controller.window());
        QVERIFY(!controller.isKeyWindow());
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(window);
        QCOMPARE(window->windowTitle(), QStringLiteral("Tolvane Settings"));
        QCOMPARE(window->size(), QSize(560, SettingsView::contentHeight()));
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));

        QTest::mouseClick(controller.view()->tabPill(SettingsView::Pane::history), Qt::LeftButton);
        QCOMPARE(controller.view()->pane(), SettingsView::Pane::history);
        window->close();
        QVERIFY(waitUntil([&] { return !window->isVisible(); }));
        controller.show();
        QCOMPARE(controller.window(), window);
        QVERIFY(window->isVisible());
        QCOMPARE(controller.view()->pane(), SettingsView::Pane::history);
        QVERIFY(controller.view()->tabPill(SettingsView::Pane::history)->selected());
        QVERIFY(!controller.view()->tabPill(SettingsView::Pane::general)->selected());
    }

    void settingsWindowHidesAfterLosingFocusUnlessItReturns()
    {
        SettingsWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));

        // Another window takes the focus and gives it back quickly: the Settings window stays.
        QWidget other;
        other.resize(200, 100);
        other.show();
        other.activateWindow();
        QVERIFY(waitUntil([&] { return other.isActiveWindow(); }));
        QVERIFY(controller.hidePending());
        controller.show();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        QVERIFY(!controller.hidePending());
        QTest::qWait(400);
        QVERIFY(window->isVisible());

        // It keeps the focus elsewhere: the Settings window goes away by itself.
        other.activateWindow();
        QVERIFY(waitUntil([&] { return other.isActiveWindow(); }));
        QVERIFY(waitUntil([&] { return !window->isVisible(); }, 3000));
        QVERIFY(!controller.isKeyWindow());
    }

    void switchingTheTaskbarIconLeavesSettingsInFront()
    {
        Preferences::shared().setShowDockIcon(true);
        SettingsWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        QCOMPARE(window->windowType(), Qt::Window);
        auto* toggle = window->findChild<ToggleSwitch*>(QStringLiteral("taskbarSwitch"));
        QVERIFY(toggle);
        QTest::mouseClick(toggle, Qt::LeftButton);
        QVERIFY(!Preferences::shared().showDockIcon());
        QCOMPARE(window->windowType(), Qt::Tool);
        QVERIFY(waitUntil([&] { return windowTypes(window).contains(QStringLiteral("_NET_WM_WINDOW_TYPE_UTILITY")); }));
        QVERIFY(windowTypes(window).contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR")));
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        QTest::qWait(400);
        QVERIFY(window->isVisible());
        QTest::mouseClick(window->findChild<ToggleSwitch*>(QStringLiteral("taskbarSwitch")), Qt::LeftButton);
        QCOMPARE(window->windowType(), Qt::Window);
        QVERIFY(waitUntil([&] { return !windowTypes(window).contains(QStringLiteral("_NET_WM_WINDOW_TYPE_UTILITY")); }));
        QVERIFY(!windowTypes(window).contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR")));
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
    }

    void windowsBuiltWithTheTaskbarIconOffStayOutOfTheTaskbar()
    {
        Preferences::shared().setShowDockIcon(false);
        AboutWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return window->isVisible() && window->windowHandle()->isExposed(); }));
        QCOMPARE(window->windowType(), Qt::Tool);
        const QString props = windowTypes(window);
        QVERIFY2(props.contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR")), qPrintable(props));
        Preferences::shared().setShowDockIcon(true);
    }

    void armingTwiceLeavesOneEmptyWaitingModel()
    {
        CompareWindowController controller;
        controller.arm();
        QWidget* window = controller.window();
        QVERIFY(window && window->isVisible());
        QCOMPARE(window->windowTitle(), QStringLiteral("Compare Cleanup Modes"));
        QVERIFY(window->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
        auto* view = window->findChild<CompareView*>();
        const auto colour = [](QWidget* w) { return w->palette().color(QPalette::WindowText); };
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(view->body(i)->text(), QStringLiteral("…"));
            QCOMPARE(colour(view->body(i)), Theme::secondaryText());
        }
        QCOMPARE(colour(view->statusLabel()), Theme::primaryText());

        CompareModel& model = controller.model();
        model.setArmed(false);
        model.setStatus(QStringLiteral("Done."));
        model.setRaw(QStringLiteral("raw words"));
        model.setTidy(QStringLiteral("Tidy words."));
        model.setBullets(QStringLiteral("- words"));
        model.setSummary(QStringLiteral("Words."));
        QCOMPARE(view->body(0)->text(), QStringLiteral("raw words"));
        QCOMPARE(colour(view->body(0)), Theme::primaryText());
        QCOMPARE(view->statusLabel()->text(), QStringLiteral("Done."));
        QCOMPARE(colour(view->statusLabel()), Theme::secondaryText());

        window->close();
        controller.arm();
        QCOMPARE(controller.window(), window);
        QVERIFY(window->isVisible());
        QVERIFY(model.armed());
        QCOMPARE(model.status(), CompareModel::instructionText());
        QVERIFY(model.raw().isEmpty() && model.tidy().isEmpty() && model.bullets().isEmpty() && model.summary().isEmpty());
        for (int i = 0; i < 4; ++i)
            QCOMPARE(view->body(i)->text(), QStringLiteral("…"));
        QCOMPARE(view->statusLabel()->text(), CompareModel::instructionText());
        QVERIFY(view->minimumSize() == QSize(560, 480));
    }

    void aboutWindowAndVersionLine()
    {
        QCOMPARE(AboutView::versionLine(std::nullopt, QString()), QStringLiteral("Version 1.0.5"));
        QCOMPARE(AboutView::versionLine(std::nullopt, QStringLiteral("2.3.4")), QStringLiteral("Version 2.3.4"));
        QCOMPARE(AboutView::versionLine(QStringLiteral("Version x.x.x"), QStringLiteral("2.3.4")), QStringLiteral("Version x.x.x"));
        QVERIFY(!AboutView::openAddress(QStringLiteral("not a url")));

        AboutWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QCOMPARE(window->windowTitle(), QStringLiteral("About Tolvane"));
        QCOMPARE(window->size(), QSize(380, 480));
        QCOMPARE(window->findChild<QLabel*>(QStringLiteral("versionLine"))->text(),
                 QStringLiteral("Version " TOLVANE_VERSION));
        window->close();
        controller.show();
        QCOMPARE(controller.window(), window);
        QVERIFY(window->isVisible());
    }
};

QTEST_MAIN(WindowsTest)
#include "WindowsTest.moc"
