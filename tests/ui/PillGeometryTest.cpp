// The pill's layout, placement and animation, without a display.
#include "ui/OverlayPlacement.h"
#include "ui/WaveformAnimation.h"

#include <QTest>

#include <cmath>

// The idle pill's frame where placement puts it; a null rectangle when it stays where it is.
QRectF pillAt(std::optional<QPoint> origin)
{
    return origin ? QRectF(*origin, QSizeF(46, 22)) : QRectF();
}

class PillGeometryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void layout_data()
    {
        using namespace WaveformGeometry;
        const auto place = OverlayPlacement::initialOrigin;
        const QList<QRect> one{{0, 0, 1280, 800}}, two{{0, 0, 1280, 800}, {1280, 0, 1920, 1080}};
        const QRect full(0, 0, 1280, 800);
        const QRectF topCentre(617, 8, 46, 22);
        QTest::addColumn<QRectF>("actual");
        QTest::addColumn<QRectF>("expected");
        // The bar group sits centred between the insets, each bar vertically centred, never under 3 high.
        QTest::newRow("first bar") << barRect(0, {46, 22}, 1, false) << QRectF(15, 9.5, 4, 3);
        QTest::newRow("tall bar") << barRect(1, {46, 22}, 14, false) << QRectF(21, 4, 4, 14);
        QTest::newRow("too narrow: from the inset") << barRect(0, {46, 22}, 3, true) << QRectF(18, 9.5, 4, 3);
        QTest::newRow("ring beside buttons") << spinnerRect({68, 22}, true) << QRectF(27, 4, 14, 14);
        QTest::newRow("ring in a short pill") << spinnerRect({46, 16}, false) << QRectF(19, 4, 8, 8);
        // The pill goes under the top centre unless a saved place still touches a screen.
        QTest::newRow("first launch") << pillAt(place({}, {}, one, full)) << topCentre;
        QTest::newRow("below a top panel") << pillAt(place({}, {}, one, QRect(0, 32, 1280, 768))) << topCentre.translated(0, 32);
        QTest::newRow("one key alone") << pillAt(place(300.0, {}, one, full)) << topCentre;
        QTest::newRow("saved") << pillAt(place(300.0, 500.0, two, full)) << QRectF(277, 500, 46, 22);
        QTest::newRow("saved on the second screen") << pillAt(place(2000.0, 900.0, two, full)) << QRectF(1977, 900, 46, 22);
        QTest::newRow("half off the edge") << pillAt(place(1290.0, 10.0, one, full)) << QRectF(1267, 10, 46, 22);
        QTest::newRow("screen unplugged") << pillAt(place(2000.0, 900.0, one, full)) << topCentre;
        QTest::newRow("above the screen") << pillAt(place(640.0, -100.0, one, full)) << topCentre;
        QTest::newRow("nonsense") << pillAt(place(std::nan(""), 10.0, two, full)) << topCentre;
        QTest::newRow("no screen") << pillAt(place(300.0, 500.0, {}, std::nullopt)) << QRectF();
    }
    void layout()
    {
        QFETCH(QRectF, actual);
        QFETCH(QRectF, expected);
        QCOMPARE(actual, expected);
    }

    void levelCurve_data()
    {
        QTest::addColumn<double>("level");
        QTest::addColumn<double>("target");
        QTest::newRow("silence") << 0.0 << 0.0;
        QTest::newRow("just under the gate") << 0.0299 << 0.0;
        QTest::newRow("quiet voice") << 0.04 << 0.4;
        QTest::newRow("full") << 0.25 << 1.0;
        QTest::newRow("louder than full") << 0.8 << 1.0;
    }
    void levelCurve()
    {
        QFETCH(double, level);
        QFETCH(double, target);
        QVERIFY(qFuzzyCompare(1 + WaveformAnimation::targetLevel(level), 1 + target));
    }

    void barsRiseSwayAndSettle()
    {
        WaveformAnimation a;
        a.amplitude = 0.25;
        a.stepListening(22);
        QVERIFY(qFuzzyCompare(a.displayedAmp, 0.12));  // 12 % of the way per frame
        a.stepListening(22);
        QVERIFY(qFuzzyCompare(a.displayedAmp, 0.12 + 0.88 * 0.12));
        // At full level the middle bar sways between 8.4 and 14 points, the outer ones between 5.88 and 9.8.
        double lo[3] = {100, 100, 100}, hi[3] = {0, 0, 0};
        for (int i = 0; i < 1300; ++i) {
            a.stepListening(22);
            for (int b = 0; b < 3 && i >= 300; ++b)
                lo[b] = std::min(lo[b], a.currentHeights[b]), hi[b] = std::max(hi[b], a.currentHeights[b]);
        }
        for (int b = 0; b < 3; ++b) {
            const double top = b == 1 ? 14 : 9.8;
            QVERIFY(lo[b] >= top * 0.6 - 1e-9 && hi[b] <= top + 1e-9 && hi[b] - lo[b] > top * 0.28);
        }
        // Under the gate counts as silence: the level falls every frame down to the resting bars.
        a.amplitude = 0.02;
        for (int i = 0; i < 300; ++i) {
            const double before = a.displayedAmp;
            a.stepListening(22);
            QVERIFY(a.displayedAmp < before);
        }
        for (double h : a.currentHeights)
            QVERIFY(std::abs(h - 3.0) < 1e-3);

        // Processing turns the ring clockwise and pulses it between 0.7 and 1; the bars rest meanwhile.
        float dim = 1, bright = 0;
        for (int i = 0; i < 400; ++i) {
            a.stepProcessing();
            dim = std::min(dim, a.spinnerOpacity), bright = std::max(bright, a.spinnerOpacity);
        }
        QVERIFY(qFuzzyCompare(a.spinnerAngle, -0.1 * 400));
        QVERIFY(dim >= 0.7f && dim < 0.701f && bright <= 1.0f && bright > 0.999f);
        for (double h : a.currentHeights)
            QVERIFY(std::abs(h - 3.0) < 1e-3);
    }
};

QTEST_GUILESS_MAIN(PillGeometryTest)
#include "PillGeometryTest.moc"
