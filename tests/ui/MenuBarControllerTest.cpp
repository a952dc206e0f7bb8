#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "ui/MenuBarController.h"
#include "ui/Theme.h"

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTest>
#include <QTimer>

namespace {

TranscriptEntry entry(const QString& text)
{
    return {QUuid::createUuid(), QStringLiteral("2026-11-23T00:00:00.000Z"), text};
}

// The submenu as the user reads it: enabled state and text of each item, separators as "—".
QStringList shown(const QMenu* menu)
{
    QStringList out;
    for (const QAction* a : menu->actions())
        out << (a->isSeparator() ? QStringLiteral("—") : (a->isEnabled() ? QString() : QStringLiteral("(off) ")) + a->text());
    return out;
}

// Rows of the image column that are covered by a bar, in device pixels.
int coveredRows(const QImage& image, int column)
{
    int rows = 0;
    for (int y = 0; y < image.height(); ++y)
        rows += image.pixelColor(column, y).alpha() > 127 ? 1 : 0;
    return rows;
}

}  // namespace

class MenuBarControllerTest : public QObject {
    Q_OBJECT
private:
    QList<TranscriptEntry> history;
    std::unique_ptr<MenuBarController> bar;

    MenuBarController& installed()
    {
        bar = std::make_unique<MenuBarController>([this] { return history; });
        bar->install();
        return *bar;
    }

private Q_SLOTS:
    void init() { history.clear(); }
    void cleanup()
    {
        if (bar && bar->menu())
            bar->menu()->close();
        bar.reset();
    }

    void iconIsThreeGreenBars()
    {
        const double heights[] = {7.2, 13.6, 9.92};
        const double lefts[] = {2, 7.5, 13};
        // A bar is never thinner than 3 points.
        QCOMPARE(MenuBarController::iconBarRects({0.0}).first().height(), 3.0);

        // Drawn at four pixels per point: each bar covers its height in its column, in brand green.
        const QImage image = MenuBarController::iconImage({0.45, 0.85, 0.62}, brandGreen(), 4);
        QCOMPARE(image.size(), QSize(72, 64));
        for (int i = 0; i < 3; ++i) {
            const int column = static_cast<int>((lefts[i] + 1.5) * 4);
            QVERIFY2(std::abs(coveredRows(image, column) - heights[i] * 4) <= 1.5,
                     qPrintable(QString::number(coveredRows(image, column))));
            QCOMPARE(image.pixelColor(column, 32).rgb(), brandGreen().rgb());
        }
        // Between the bars and around them: nothing.
        QCOMPARE(coveredRows(image, static_cast<int>(5.25 * 4)), 0);
        QCOMPARE(coveredRows(image, 2), 0);
        QCOMPARE(coveredRows(image, 70), 0);

        MenuBarController& c = installed();
        QVERIFY(c.trayIcon());
        QCOMPARE(c.trayIcon()->toolTip(), QStringLiteral("Tolvane"));
        QVERIFY(!c.trayIcon()->icon().isNull());

        // The level is clamped and stopAnimating() rests it, before install too.
        c.setAmplitude(3);
        QCOMPARE(c.amplitude(), 1.0);
        c.stopAnimating();
        QCOMPARE(c.amplitude(), 0.0);
        MenuBarController early([] { return QList<TranscriptEntry>(); });
        early.setAmplitude(0.7);
        early.stopAnimating();
        QCOMPARE(early.amplitude(), 0.0);
    }

    void menuItemsAndTheirCallbacks()
    {
        MenuBarController& c = installed();
        QCOMPARE(shown(c.menu()), (QStringList{QStringLiteral("About Tolvane"), QStringLiteral("Settings…"),
                                               QStringLiteral("Check for Updates…"), QStringLiteral("Recent Transcripts"),
                                               QStringLiteral("Compare Cleanup Modes…"), QStringLiteral("—"),
                                               QStringLiteral("Quit Tolvane")}));
        const QList<QAction*> items = c.menu()->actions();

        // Unset callbacks do nothing.
        for (int i : {0, 1, 2, 4})
            items[i]->trigger();
        c.openCompare();

        int about = 0, settings = 0, updates = 0, compare = 0;
        c.onAbout = [&] { ++about; };
        c.onOpenSettings = [&] { ++settings; };
        c.onCheckForUpdates = [&] { ++updates; };
        c.onCompare = [&] { ++compare; };
        items[0]->trigger();
        items[2]->trigger();
        QCOMPARE(about, 1);
        QCOMPARE(updates, 1);
        items[4]->trigger();
        QCOMPARE(compare, 1);

        // Ctrl+, answers while the menu is open.
        c.menu()->popup(QPoint(40, 40));
        QVERIFY(QTest::qWaitForWindowExposed(c.menu()));
        QTest::keyClick(c.menu(), Qt::Key_Comma, Qt::ControlModifier);
        QVERIFY(TestSupport::waitUntil([&] { return settings == 1; }));
        QCOMPARE(about, 1);
    }

    void ctrlQQuitsWhileTheMenuIsOpen()
    {
        MenuBarController& c = installed();
        QTimer::singleShot(0, this, [&] {
            c.menu()->popup(QPoint(40, 40));
            QVERIFY(QTest::qWaitForWindowExposed(c.menu()));
            QTest::keyClick(c.menu(), Qt::Key_Q, Qt::ControlModifier);
        });
        // The application's loop ends with 0 when Quit ran, with 1 when nothing answered in time.
        QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(1); });
        QCOMPARE(QCoreApplication::exec(), 0);
    }

    void recentTranscriptsNewestFirstWithShortTitles()
    {
        MenuBarController& c = installed();
        c.rebuildRecentMenu();
        QCOMPARE(shown(c.recentMenu()), QStringList{QStringLiteral("(off) No transcripts yet")});

        const QString sixty = QString(60, QLatin1Char('a'));
        history << entry(sixty) << entry(sixty + QLatin1Char('b')) << entry(QStringLiteral("first line\nsecond line"))
                << entry(QStringLiteral("Tom & Jerry"));
        c.rebuildRecentMenu();
        QCOMPARE(shown(c.recentMenu()),
                 (QStringList{QStringLiteral("(off) Click to copy"), QStringLiteral("—"), QStringLiteral("Tom && Jerry"),
                              QStringLiteral("first line second line"), sixty + QStringLiteral("…"), sixty}));
        const QList<QAction*> items = c.recentMenu()->actions();
        // Tooltips keep the whole text, line breaks included.
        QCOMPARE(items[3]->toolTip(), QStringLiteral("first line\nsecond line"));
        QCOMPARE(items[4]->toolTip(), sixty + QLatin1Char('b'));
    }

    void titlesCountCharactersAsReadersDo()
    {
        // "é" written as e + combining accent is one character; so is a family emoji of seven code
        // points.
        const QString e = QStringLiteral("e\u0301");
        const QString family = QStringLiteral("\U0001F468\u200D\U0001F469\u200D\U0001F467");
        QString sixty;
        for (int i = 0; i < 30; ++i)
            sixty += e + family;
        QCOMPARE(MenuBarController::menuTitle(sixty), sixty);
        QCOMPARE(MenuBarController::menuTitle(sixty + e), sixty + QStringLiteral("…"));
        QCOMPARE(MenuBarController::menuTitle(QString()), QString());
        QCOMPARE(MenuBarController::menuTitle(QStringLiteral("a\n\nb")), QStringLiteral("a  b"));
    }

    void aClickCopiesTheWholeTranscript()
    {
        MenuBarController& c = installed();
        QGuiApplication::clipboard()->setText(QStringLiteral("before"));
        history << entry(QStringLiteral("older")) << entry(QStringLiteral("line one\nline two & more"));

        // Open the menu as a user does; the submenu is filled as it opens.
        c.menu()->popup(QPoint(40, 40));
        QVERIFY(QTest::qWaitForWindowExposed(c.menu()));
        const QList<QAction*> top = c.menu()->actions();
        QTest::mouseMove(c.menu(), c.menu()->actionGeometry(top[3]).center());
        QTest::mouseClick(c.menu(), Qt::LeftButton, {}, c.menu()->actionGeometry(top[3]).center());
        QVERIFY(TestSupport::waitUntil([&] { return c.recentMenu()->isVisible(); }));
        QVERIFY(QTest::qWaitForWindowExposed(c.recentMenu()));
        QCOMPARE(shown(c.recentMenu()).mid(2), (QStringList{QStringLiteral("line one line two && more"),
                                                          QStringLiteral("older")}));

        // The disabled header copies nothing.
        QAction* header = c.recentMenu()->actions().first();
        QTest::mouseClick(c.recentMenu(), Qt::LeftButton, {}, c.recentMenu()->actionGeometry(header).center());
        QTest::qWait(50);
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("before"));

        QAction* newest = c.recentMenu()->actions().at(2);
        QTest::mouseMove(c.recentMenu(), c.recentMenu()->actionGeometry(newest).center());
        QTest::mouseClick(c.recentMenu(), Qt::LeftButton, {}, c.recentMenu()->actionGeometry(newest).center());
        QVERIFY(TestSupport::waitUntil(
            [] { return QGuiApplication::clipboard()->text() == QStringLiteral("line one\nline two & more"); }));
        QVERIFY(TestSupport::waitUntil([&] { return !c.menu()->isVisible(); }));

        // A transcript saved while the menu was closed comes first the next time it opens.
        history << entry(QStringLiteral("newest"));
        c.menu()->popup(QPoint(40, 40));
        QVERIFY(QTest::qWaitForWindowExposed(c.menu()));
        QCOMPARE(c.recentMenu()->actions().at(2)->text(), QStringLiteral("newest"));

        // Items that carry no transcript copy nothing.
        c.copyTranscript(nullptr);
        c.copyTranscript(c.menu()->actions().first());
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("line one\nline two & more"));
    }

    void theSharedHistoryByDefault()
    {
        Preferences::shared().setHistoryEnabled(true);
        TranscriptStore::shared().clear();
        MenuBarController c;
        c.install();
        c.rebuildRecentMenu();
        QCOMPARE(shown(c.recentMenu()), QStringList{QStringLiteral("(off) No transcripts yet")});
        TranscriptStore::shared().append(QStringLiteral("first"));
        TranscriptStore::shared().append(QStringLiteral("second"));
        c.rebuildRecentMenu();
        QCOMPARE(shown(c.recentMenu()).mid(2), (QStringList{QStringLiteral("second"), QStringLiteral("first")}));
        TranscriptStore::shared().waitForWrites();
    }
};

QTEST_MAIN(MenuBarControllerTest)
#include "MenuBarControllerTest.moc"
