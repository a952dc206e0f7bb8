#include "ui/OverlayPlacement.h"
#include "ui/WaveformGeometry.h"

#include <QTest>

#include <cmath>

namespace {
QList<double> barXs(QSizeF view, bool buttons)
{
    QList<double> xs;
    for (int i = 0; i < WaveformGeometry::barCount; ++i)
        xs << WaveformGeometry::barRect(i, view, 3, buttons).x();
    return xs;
}
}  // namespace

class PillGeometryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void barsSitCentredBetweenTheInsets()
    {
        // The narrow pill without buttons and the wide one with them keep the group in the middle.
        QCOMPARE(barXs({46, 22}, false), (QList<double>{15, 21, 27}));
        QCOMPARE(barXs({68, 22}, true), (QList<double>{26, 32, 38}));
        // Too narrow for the group beside the buttons: the bars start at the inset, never before it.
        QCOMPARE(barXs({46, 22}, true), (QList<double>{18, 24, 30}));

        // Each bar is 4 wide, centred vertically, never lower than 3 points.
        QCOMPARE(WaveformGeometry::barRect(1, {46, 22}, 14, false), QRectF(21, 4, 4, 14));
        QCOMPARE(WaveformGeometry::barRect(0, {46, 22}, 1, false), QRectF(15, 9.5, 4, 3));
    }

    void buttonsAndSpinner()
    {
        QCOMPARE(WaveformGeometry::acceptButtonRect({68, 22}), QRectF(3, 4, 14, 14));
        QCOMPARE(WaveformGeometry::trashButtonRect({68, 22}), QRectF(51, 4, 14, 14));
        // The ring is 14 across in the 22-point pill, centred between the insets.
        QCOMPARE(WaveformGeometry::spinnerRect({46, 22}, false), QRectF(16, 4, 14, 14));
        QCOMPARE(WaveformGeometry::spinnerRect({68, 22}, true), QRectF(27, 4, 14, 14));
        QCOMPARE(WaveformGeometry::spinnerRect({46, 16}, false).size(), QSizeF(8, 8));
    }

    void firstLaunchGoesUnderTheTopCentre()
    {
        const QList<QRect> screens{{0, 0, 1280, 800}};
        QCOMPARE(OverlayPlacement::initialOrigin({}, {}, screens, QRect(0, 0, 1280, 800)), QPoint(617, 8));
        // A top panel takes 32 points: the pill stays 8 below the usable area's top.
        QCOMPARE(OverlayPlacement::initialOrigin({}, {}, screens, QRect(0, 32, 1280, 768)), QPoint(617, 40));
        // One key alone is not a saved place.
        QCOMPARE(OverlayPlacement::initialOrigin(300.0, {}, screens, QRect(0, 0, 1280, 800)), QPoint(617, 8));
        // No screen at all: nowhere to go.
        QCOMPARE(OverlayPlacement::initialOrigin({}, {}, {}, std::nullopt), std::optional<QPoint>());
    }

    void savedPlaceIsRestoredWhileOnAScreen()
    {
        const QList<QRect> two{{0, 0, 1280, 800}, {1280, 0, 1920, 1080}};
        const QRect primary(0, 0, 1280, 800);
        QCOMPARE(OverlayPlacement::initialOrigin(300.0, 500.0, two, primary), QPoint(277, 500));
        QCOMPARE(OverlayPlacement::initialOrigin(2000.0, 900.0, two, primary), QPoint(1977, 900));
        // Half off the right edge still touches the screen.
        QCOMPARE(OverlayPlacement::initialOrigin(1290.0, 10.0, {{0, 0, 1280, 800}}, primary), QPoint(1267, 10));
        // The second monitor was unplugged, or the values are nonsense: back to the default place.
        QCOMPARE(OverlayPlacement::initialOrigin(2000.0, 900.0, {{0, 0, 1280, 800}}, primary), QPoint(617, 8));
        QCOMPARE(OverlayPlacement::initialOrigin(640.0, -100.0, {{0, 0, 1280, 800}}, primary), QPoint(617, 8));
        QCOMPARE(OverlayPlacement::initialOrigin(std::nan(""), 10.0, two, primary), QPoint(617, 8));
        // Saved place without any screen: the pill stays where it is.
        QCOMPARE(OverlayPlacement::initialOrigin(300.0, 500.0, {}, std::nullopt), std::optional<QPoint>());
    }

    void resizingKeepsTheCentreAndTop()
    {
        const QRect idle(617, 8, 46, 22);
        const QRect wide = OverlayPlacement::resized(idle, OverlayPlacement::expandedWidth);
        QCOMPARE(wide, QRect(606, 8, 68, 22));
        QCOMPARE(OverlayPlacement::centerX(wide), 640.0);
        QCOMPARE(OverlayPlacement::resized(wide, OverlayPlacement::idleWidth), idle);
        QCOMPARE(OverlayPlacement::topY(wide), 8.0);
    }
};

QTEST_GUILESS_MAIN(PillGeometryTest)
#include "PillGeometryTest.moc"
