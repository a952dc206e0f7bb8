// The Settings, comparison and About windows and the tray menu that opens them, on a real X server.
#include "UiTest.h"
#include "dictation/CompareModel.h"
#include "storage/Preferences.h"
#include "ui/AboutView.h"
#include "ui/AboutWindowController.h"
#include "ui/CompareView.h"
#include "ui/CompareWindowController.h"
#include "ui/MenuBarController.h"
#include "ui/SettingsView.h"
#include "ui/SettingsWindowController.h"
#include "ui/TabPill.h"
#include "ui/Theme.h"
#include "ui/ToggleSwitch.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

namespace {

// The menu as the user reads it: disabled items marked, separators as "—".
QStringList seen(const QMenu* menu)
{
    QStringList out;
    for (const QAction* a : menu->actions())
        out << (a->isSeparator() ? QStringLiteral("—") : (a->isEnabled() ? QString() : QStringLiteral("(off) ")) + a->text());
    return out;
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

}  // namespace

class WindowsTest : public QObject {
    Q_OBJECT
    MenuBarController bar;

private Q_SLOTS:
    void initTestCase() { bar.install(); }

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
        // The taskbar switch re-creates the window out of (and back into) the taskbar, still in front.
        Preferences::shared().setShowDockIcon(true);
        controller.view()->setPane(SettingsView::Pane::general);
        controller.show();
        for (const bool shown : {false, true}) {
            click(child(window, "taskbarSwitch"));
            QCOMPARE(Preferences::shared().showDockIcon(), shown);
            QVERIFY(waitUntil([&] { return outOfTheTaskbar(window) == QList<bool>(3, !shown) && controller.isKeyWindow(); }));
            QTest::qWait(400);
            QVERIFY(window->isVisible());
        }
    }

    void aboutAndCompareWindowsAreBuiltOnce()
    {
        // Built with the taskbar icon off, the About window stays out of the taskbar.
        Preferences::shared().setShowDockIcon(false);
        AboutWindowController about;
        about.show();
        QWidget* window = about.window();
        QVERIFY(waitUntil([&] { return outOfTheTaskbar(window) == QList<bool>(3, true); }));
        Preferences::shared().setShowDockIcon(true);
        QCOMPARE(child<QLabel>(window, "versionLine")->text(), QStringLiteral("Version " TOLVANE_VERSION));
        QVERIFY(!AboutView::openAddress(QStringLiteral("not a url")));
        window->close();
        about.show();
        QVERIFY(about.window() == window && window->isVisible());
        // Comparison: armed, it waits on top; results fill it; armed again, the same window waits empty.
        CompareWindowController compare;
        compare.arm();
        window = compare.window();
        QVERIFY(window->isVisible() && window->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
        // The window as the user reads it: the status line, then the four blocks; dim text in brackets.
        const auto seen = [view = window->findChild<CompareView*>()] {
            QStringList out;
            for (QLabel* l : {view->statusLabel(), view->body(0), view->body(1), view->body(2), view->body(3)})
                out << (l->palette().color(QPalette::WindowText) == Theme::secondaryText() ? u'[' + l->text() + u']' : l->text());
            return out.join(u'|');
        };
        const QString waiting = CompareModel::instructionText() + QStringLiteral("|[…]|[…]|[…]|[…]");
        QCOMPARE(seen(), waiting);
        CompareModel& model = compare.model();
        model.setArmed(false);
        model.setStatus(QStringLiteral("Done."));
        model.setRaw(QStringLiteral("raw words")), model.setTidy(QStringLiteral("Raw words."));
        model.setBullets(QStringLiteral("- raw words")), model.setSummary(QStringLiteral("Words."));
        QCOMPARE(seen(), QStringLiteral("[Done.]|raw words|Raw words.|- raw words|Words."));
        window->close();
        compare.arm();
        QVERIFY(compare.window() == window && window->isVisible());
        QCOMPARE(seen(), waiting);
    }

    void iconIsThreeGreenBars()
    {
        // Across its middle at four pixels per point: three brand-green bars, 3 points wide, 2.5 apart, centred.
        const QImage image = MenuBarController::iconImage(bar.restingHeights(), brandGreen(), 4);
        QString middleRow;
        for (int x = 0; x < image.width(); ++x)
            middleRow += image.pixelColor(x, 32).rgba() == brandGreen().rgba() ? u'#' : image.pixelColor(x, 32).alpha() ? u'?' : u'.';
        const QString bar12(12, u'#'), gap10(10, u'.'), edge8(8, u'.');
        QCOMPARE(middleRow, edge8 + bar12 + gap10 + bar12 + gap10 + bar12 + edge8);
        QVERIFY(!bar.trayIcon()->icon().isNull());
        bar.setAmplitude(3);
        bar.stopAnimating();
        QCOMPARE(bar.amplitude(), 0.0);
    }

    void titles_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("title");
        const QString sixty(60, QLatin1Char('a'));
        // "é" as e + combining accent is one character to a reader; so is a family emoji of seven code points.
        QString graphemes;
        for (int i = 0; i < 30; ++i)
            graphemes += QStringLiteral("e\u0301\U0001F468\u200D\U0001F469\u200D\U0001F467");
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("sixty") << sixty << sixty;
        QTest::newRow("sixty-one") << sixty + QLatin1Char('b') << sixty + QStringLiteral("…");
        QTest::newRow("line breaks") << QStringLiteral("a\n\nb") << QStringLiteral("a  b");
        QTest::newRow("sixty graphemes") << graphemes << graphemes;
        QTest::newRow("sixty-one graphemes") << graphemes + QStringLiteral("e\u0301") << graphemes + QStringLiteral("…");
    }
    void titles()
    {
        QFETCH(QString, text);
        QFETCH(QString, title);
        QCOMPARE(MenuBarController::menuTitle(text), title);
    }

    void recentTranscriptsNewestFirstAndCopiedOnClick()
    {
        Preferences::shared().setHistoryEnabled(true);
        bar.rebuildRecentMenu();
        QCOMPARE(seen(bar.recentMenu()), QStringList{QStringLiteral("(off) No transcripts yet")});
        QGuiApplication::clipboard()->setText(QStringLiteral("before"));
        TranscriptStore::shared().append(QStringLiteral("older"));
        TranscriptStore::shared().append(QStringLiteral("line one\nline two & more"));
        // Open the menu as a user does; the submenu is filled as it opens.
        QVERIFY(open(bar.menu()));
        clickItem(bar.menu(), bar.recentMenu()->menuAction());
        QVERIFY(waitUntil([&] { return bar.recentMenu()->isVisible(); }));
        QVERIFY(QTest::qWaitForWindowExposed(bar.recentMenu()));
        QCOMPARE(seen(bar.recentMenu()), (QStringList{QStringLiteral("(off) Click to copy"), QStringLiteral("—"),
                                                     QStringLiteral("line one line two && more"), QStringLiteral("older")}));
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
