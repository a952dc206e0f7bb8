// Not a test: shows the pill in each state and the open tray menu on a light desktop, and saves
// screenshots for a designer's look. Run it on an X server (a compositing manager makes the pill's
// translucency real), e.g. QT_SCALE_FACTOR=3 pill_shots OUTDIR.
#include "ui/pill/OverlayController.h"
#include "ui/pill/WaveformPanelView.h"
#include "ui/tray/MenuBarController.h"
#include "ui/widgets/Theme.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QLinearGradient>
#include <QMenu>
#include <QPainter>
#include <QScreen>
#include <QTest>
#include <QWidget>

namespace {

// A desktop with a document window, so the pill is seen over what it usually floats above.
class Desktop final : public QWidget {
public:
    Desktop() : QWidget(nullptr, Qt::FramelessWindowHint | Qt::WindowStaysOnBottomHint) {}

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter p(this);
        QLinearGradient sky(0, 0, 0, height());
        sky.setColorAt(0, QColor(0xd8, 0xe2, 0xec));
        sky.setColorAt(1, QColor(0x9f, 0xb4, 0xc8));
        p.fillRect(rect(), sky);
        const QRect doc(width() / 2 - 150, 50, 300, 200);
        p.setPen(Qt::NoPen);
        p.setBrush(Qt::white);
        p.drawRoundedRect(doc, 6, 6);
        p.setPen(QColor(0x33, 0x33, 0x33));
        p.drawText(doc.adjusted(14, 12, -14, -12), Qt::TextWordWrap,
                   QStringLiteral("Notes\n\nPick up milk, eggs, spinach and coffee on the way home."));
    }
};

void shoot(const QString& dir, const QString& name, QRect area)
{
    QTest::qWait(120);
    area &= QGuiApplication::primaryScreen()->geometry();
    QGuiApplication::primaryScreen()->grabWindow(0, area.x(), area.y(), area.width(), area.height())
        .save(dir + QLatin1Char('/') + name);
}

QRect around(const QWidget* w, int margin)
{
    return w->geometry().adjusted(-margin, -margin, margin, margin);
}

}  // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const QString dir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");
    QDir().mkpath(dir);

    Desktop desktop;
    desktop.setGeometry(QGuiApplication::primaryScreen()->geometry());
    desktop.show();
    (void)QTest::qWaitForWindowExposed(&desktop);

    OverlayController overlay;
    overlay.installPersistent();
    (void)QTest::qWaitForWindowExposed(overlay.panel());
    shoot(dir, QStringLiteral("pill-idle.png"), around(overlay.panel(), 14));

    overlay.show();
    overlay.setAmplitude(0.12);
    QTest::qWait(700);
    shoot(dir, QStringLiteral("pill-listening.png"), around(overlay.panel(), 14));

    overlay.setMode(true);
    overlay.setAmplitude(0.3);
    QTest::qWait(500);
    const QRect wide = around(overlay.panel(), 14);
    shoot(dir, QStringLiteral("pill-listening-buttons.png"), wide);

    overlay.setMode(false);
    overlay.beginProcessing();
    QTest::qWait(400);
    shoot(dir, QStringLiteral("pill-processing.png"), around(overlay.panel(), 14));

    overlay.resetToIdle();
    overlay.setMode(true);
    overlay.show();
    overlay.beginProcessing();
    QTest::qWait(300);
    shoot(dir, QStringLiteral("pill-processing-buttons.png"), around(overlay.panel(), 14));
    overlay.resetToIdle();

    // The tray icon at four pixels per point, on a dark and a light panel.
    const QImage icon = MenuBarController::iconImage({0.45, 0.85, 0.62}, brandGreen(), 4);
    QImage strip(icon.width() * 2 + 48, icon.height() + 16, QImage::Format_ARGB32);
    QPainter p(&strip);
    p.fillRect(0, 0, strip.width() / 2, strip.height(), QColor(0x2b, 0x2b, 0x2b));
    p.fillRect(strip.width() / 2, 0, strip.width() / 2, strip.height(), QColor(0xf0, 0xf0, 0xf0));
    p.drawImage(12, 8, icon);
    p.drawImage(strip.width() / 2 + 12, 8, icon);
    p.end();
    strip.save(dir + QStringLiteral("/tray-icon.png"));

    const QStringList said{
        QStringLiteral("Remind me to call the dentist on Monday morning."),
        QStringLiteral("The quarterly numbers look good, but we should double-check the shipping costs before "
                       "Friday's meeting."),
        QStringLiteral("Dear Anna,\nthanks for the photos!"),
    };
    MenuBarController tray([said] {
        QList<TranscriptEntry> list;
        for (const QString& text : said)
            list << TranscriptEntry{QUuid::createUuid(), QString(), text};
        return list;
    });
    tray.install();
    const QPoint at(16, 24);
    tray.menu()->popup(at);
    (void)QTest::qWaitForWindowExposed(tray.menu());
    const QRect recent = tray.menu()->actionGeometry(tray.menu()->actions().at(3));
    QTest::mouseMove(tray.menu(), recent.center());
    QTest::mouseClick(tray.menu(), Qt::LeftButton, {}, recent.center());
    (void)QTest::qWaitForWindowExposed(tray.recentMenu());
    QTest::qWait(200);
    const QRect shown = tray.menu()->geometry().united(tray.recentMenu()->geometry());
    shoot(dir, QStringLiteral("tray-menu.png"), shown.adjusted(-12, -4, 12, 12));
    return 0;
}
