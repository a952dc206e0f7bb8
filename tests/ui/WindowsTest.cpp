// The Settings, comparison and About windows on a real X server: built once and kept, the Settings
// window's self-hiding and taskbar switch, the comparison window's arming.
#include "UiTest.h"
#include "dictation/CompareModel.h"
#include "storage/Preferences.h"
#include "ui/AboutView.h"
#include "ui/AboutWindowController.h"
#include "ui/CompareView.h"
#include "ui/CompareWindowController.h"
#include "ui/SettingsView.h"
#include "ui/SettingsWindowController.h"
#include "ui/TabPill.h"
#include "ui/Theme.h"
#include "ui/ToggleSwitch.h"

#include <QLabel>

// Each sign of a window kept out of the taskbar, as Qt and the window manager see it.
static QList<bool> outOfTheTaskbar(QWidget* window)
{
    const QString props = windowProperties(window);
    return {window->windowType() == Qt::Tool, props.contains(QStringLiteral("_NET_WM_WINDOW_TYPE_UTILITY")),
            props.contains(QStringLiteral("_NET_WM_STATE_SKIP_TASKBAR"))};
}

class WindowsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void settingsWindowKeepsItsTabAndHidesWhenLeft()
    {
        SettingsWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        click(controller.view()->tabPill(SettingsView::Pane::history));
        window->close();
        QVERIFY(waitUntil([&] { return !window->isVisible(); }));
        controller.show();
        QCOMPARE(controller.window(), window);
        QVERIFY(controller.view()->tabPill(SettingsView::Pane::history)->selected());
        QVERIFY(!controller.view()->tabPill(SettingsView::Pane::general)->selected());
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));

        // Another window takes the focus and gives it back quickly: the Settings window stays.
        QWidget other;
        other.resize(200, 100);
        other.show();
        other.activateWindow();
        QVERIFY(waitUntil([&] { return other.isActiveWindow() && controller.hidePending(); }));
        controller.show();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow() && !controller.hidePending(); }));
        QTest::qWait(400);
        QVERIFY(window->isVisible());
        // It keeps the focus elsewhere: the Settings window goes away by itself.
        other.activateWindow();
        QVERIFY(waitUntil([&] { return !window->isVisible(); }));
    }

    void theTaskbarSwitchLeavesSettingsInFront()
    {
        Preferences::shared().setShowDockIcon(true);
        SettingsWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
        for (const bool shown : {false, true}) {
            click(child(window, "taskbarSwitch"));
            QCOMPARE(Preferences::shared().showDockIcon(), shown);
            QVERIFY(waitUntil([&] { return outOfTheTaskbar(window) == QList<bool>(3, !shown); }));
            QVERIFY(waitUntil([&] { return controller.isKeyWindow(); }));
            QTest::qWait(400);
            QVERIFY(window->isVisible());
        }
    }

    void aboutWindowIsBuiltOnceOutOfTheTaskbarWhenAsked()
    {
        Preferences::shared().setShowDockIcon(false);
        AboutWindowController controller;
        controller.show();
        QWidget* window = controller.window();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        QVERIFY(waitUntil([&] { return outOfTheTaskbar(window) == QList<bool>(3, true); }));
        QCOMPARE(child<QLabel>(window, "versionLine")->text(), QStringLiteral("Version " TOLVANE_VERSION));
        window->close();
        controller.show();
        QCOMPARE(controller.window(), window);
        QVERIFY(window->isVisible());
        QVERIFY(!AboutView::openAddress(QStringLiteral("not a url")));
        Preferences::shared().setShowDockIcon(true);
    }

    void armingAgainLeavesOneEmptyWaitingWindow()
    {
        CompareWindowController controller;
        controller.arm();
        QWidget* window = controller.window();
        QVERIFY(window->isVisible() && window->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
        auto* view = window->findChild<CompareView*>();
        const auto colour = [](QLabel* l) { return l->palette().color(QPalette::WindowText); };
        // Waiting: dim placeholders under a bright instruction; results bright under a dim status.
        const auto waiting = [&] {
            for (int i = 0; i < 4; ++i)
                if (view->body(i)->text() != QStringLiteral("…") || colour(view->body(i)) != Theme::secondaryText())
                    return false;
            return view->statusLabel()->text() == CompareModel::instructionText() &&
                   colour(view->statusLabel()) == Theme::primaryText();
        };
        QVERIFY(waiting());
        CompareModel& model = controller.model();
        model.setArmed(false);
        model.setStatus(QStringLiteral("Done."));
        model.setRaw(QStringLiteral("raw words"));
        model.setSummary(QStringLiteral("Words."));
        QCOMPARE(view->body(0)->text(), QStringLiteral("raw words"));
        QCOMPARE(view->body(3)->text(), QStringLiteral("Words."));
        QCOMPARE(colour(view->body(0)), Theme::primaryText());
        QCOMPARE(colour(view->statusLabel()), Theme::secondaryText());

        window->close();
        controller.arm();
        QCOMPARE(controller.window(), window);
        QVERIFY(window->isVisible() && model.armed() && model.raw().isEmpty() && model.summary().isEmpty());
        QVERIFY(waiting());
    }
};

QTEST_MAIN(WindowsTest)
#include "WindowsTest.moc"
