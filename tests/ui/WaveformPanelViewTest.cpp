#include "support/TestSupport.h"
#include "ui/Theme.h"
#include "ui/WaveformPanelView.h"

#include <QAbstractButton>
#include <QImage>
#include <QTest>

#include <cmath>

namespace {

// The view drawn into an image; pixels are read in points, whatever the scale.
struct Drawn {
    QImage image;
    QColor at(double x, double y) const
    {
        const double s = image.devicePixelRatio();
        return image.pixelColor(static_cast<int>(x * s), static_cast<int>(y * s));
    }
};

Drawn draw(WaveformPanelView& view)
{
    return Drawn{view.grab().toImage()};
}

bool isGreen(const QColor& c)
{
    return c.alpha() > 200 && c.green() > 60 && c.green() > c.red() * 2 && c.green() > c.blue() * 1.4;
}

}  // namespace

class WaveformPanelViewTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void idleIsDimStillAndNarrow()
    {
        WaveformPanelView view;
        view.resize(46, 22);
        view.enterListening(false);
        view.setAmplitude(1.0);
        for (int i = 0; i < 40; ++i)
            view.step();
        QVERIFY(view.barRects()[1].height() > 8);

        // Entering idle drops the bars to 3 points at once and dims them.
        view.enterIdle();
        QCOMPARE(view.state(), WaveformPanelView::State::idle);
        QVERIFY(!view.isAnimating());
        QCOMPARE(view.amplitude(), 0.0);
        QCOMPARE(view.animation().displayedAmp, 0.0);
        QCOMPARE(view.barOpacity(), 0.4f);
        QVERIFY(view.barsVisible());
        QVERIFY(!view.spinnerVisible());
        QVERIFY(view.acceptButton()->isHidden() && view.trashButton()->isHidden());
        for (const QRectF& r : view.barRects())
            QCOMPARE(r.height(), 3.0);

        const Drawn d = draw(view);
        // A dark capsule with transparent corners, a light rim and dim green bars.
        QCOMPARE(d.at(0.2, 0.2).alpha(), 0);
        QVERIFY(std::abs(d.at(8, 11).alpha() - 209) < 6 && d.at(8, 11).value() < 40);
        const QColor bar = d.at(22.5, 11);
        QVERIFY2(bar.green() > bar.red() && bar.green() < 150, qPrintable(bar.name(QColor::HexArgb)));
        QVERIFY(!isGreen(d.at(22.5, 7)));  // above the 3-point bar
    }

    void listeningFollowsTheLevel()
    {
        WaveformPanelView view;
        view.resize(46, 22);
        view.enterIdle();
        view.enterListening(false);
        QVERIFY(view.isAnimating());
        QCOMPARE(view.barOpacity(), 1.0f);
        QVERIFY(view.acceptButton()->isHidden());

        // The frame clock drives the bars; no manual steps.
        view.setAmplitude(0.5);
        QVERIFY(TestSupport::waitUntil([&] { return view.animation().displayedAmp > 0.9; }));
        QVERIFY(view.barRects()[1].height() > 8.0);
        // Bars stay vertically centred while they move.
        for (const QRectF& r : view.barRects())
            QVERIFY(std::abs(r.center().y() - 11.0) < 1e-9);

        view.setAmplitude(7);  // out of range: clamped
        QCOMPARE(view.amplitude(), 1.0);
        view.setAmplitude(-1);
        QCOMPARE(view.amplitude(), 0.0);

        view.setAmplitude(1.0);
        for (int i = 0; i < 20; ++i)
            view.step();
        const Drawn d = draw(view);
        const QRectF middle = view.barRects()[1];
        QVERIFY(isGreen(d.at(middle.center().x(), middle.top() + 1)));
        QVERIFY(isGreen(d.at(middle.center().x(), middle.bottom() - 1)));
    }

    void handsFreeShowsBothButtons()
    {
        WaveformPanelView view;
        view.resize(68, 22);
        int accepted = 0, cancelled = 0;
        view.onAccept = [&] { ++accepted; };
        view.onCancel = [&] { ++cancelled; };
        view.enterListening(true);
        view.show();  // buttons only take clicks when shown
        QVERIFY(!view.acceptButton()->isHidden() && !view.trashButton()->isHidden());
        QCOMPARE(view.acceptButton()->toolTip(), QStringLiteral("Insert (done)"));
        QCOMPARE(view.trashButton()->toolTip(), QStringLiteral("Discard (Esc)"));

        QTest::mouseClick(view.acceptButton(), Qt::LeftButton);
        QCOMPARE(accepted, 1);
        QCOMPARE(cancelled, 0);
        QTest::mouseClick(view.trashButton(), Qt::LeftButton);
        QCOMPARE(cancelled, 1);
        QCOMPARE(accepted, 1);

        view.setAmplitude(0.3);
        for (int i = 0; i < 30; ++i)
            view.step();
        const Drawn d = draw(view);
        QVERIFY(isGreen(d.at(9.5, 9.5)) || isGreen(d.at(8.5, 10.5)) || isGreen(d.at(7.5, 11.2)));  // the tick
        QVERIFY(d.at(58, 12).value() > 150);  // the white trash can

        // Without handlers a click does nothing at all.
        view.onAccept = nullptr;
        view.onCancel = nullptr;
        QTest::mouseClick(view.acceptButton(), Qt::LeftButton);
        QTest::mouseClick(view.trashButton(), Qt::LeftButton);
    }

    void processingTurnsTheRing()
    {
        WaveformPanelView view;
        view.resize(46, 22);
        view.enterListening(false);
        view.enterProcessing(false);
        QCOMPARE(view.state(), WaveformPanelView::State::processing);
        QVERIFY(view.isAnimating());
        QVERIFY(!view.barsVisible());
        QVERIFY(view.spinnerVisible());
        QVERIFY(view.acceptButton()->isHidden());

        const Drawn d = draw(view);
        // Ring from the bottom round to the left; the gap is the lower-left quarter.
        const QPointF c(23, 11);
        const double r = 5.9;
        auto onRing = [&](double degreesFromRight) {
            const double a = degreesFromRight * M_PI / 180.0;  // screen angle, counter-clockwise
            return d.at(c.x() + r * std::cos(a), c.y() - r * std::sin(a));
        };
        QVERIFY(isGreen(onRing(0)));
        QVERIFY(isGreen(onRing(90)));
        QVERIFY(isGreen(onRing(180 - 10)));
        QVERIFY(isGreen(onRing(270 + 10)));
        QVERIFY(!isGreen(onRing(225)));
        // The bars are gone.
        QVERIFY(!isGreen(d.at(22.5, 11)));

        const double before = view.animation().spinnerAngle;
        view.step();
        QVERIFY(qFuzzyCompare(view.animation().spinnerAngle, before - 0.1));

        view.resize(68, 22);
        view.enterProcessing(true);
        QVERIFY(!view.acceptButton()->isHidden());

        view.enterIdle();
        QVERIFY(!view.spinnerVisible());
        QVERIFY(view.barsVisible());
        QVERIFY(!view.isAnimating());
    }
};

QTEST_MAIN(WaveformPanelViewTest)
#include "WaveformPanelViewTest.moc"
