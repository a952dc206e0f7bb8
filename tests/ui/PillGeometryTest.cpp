// The pill's layout, placement and animation, without a display.
#include "ui/OverlayPlacement.h"
#include "ui/WaveformAnimation.h"

#include <QTest>

#include <cmath>

using Origin = std::optional<QPoint>;

class PillGeometryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void parts_data()
    {
        using namespace WaveformGeometry;
        QTest::addColumn<QRectF>("actual");
        QTest::addColumn<QRectF>("expected");
        // The bar group sits centred between the insets, each bar vertically centred, never under 3 high.
        QTest::newRow("first bar") << barRect(0, {46, 22}, 1, false) << QRectF(15, 9.5, 4, 3);
        QTest::newRow("last bar") << barRect(2, {46, 22}, 3, false) << QRectF(27, 9.5, 4, 3);
        QTest::newRow("tall bar") << barRect(1, {46, 22}, 14, false) << QRectF(21, 4, 4, 14);
        QTest::newRow("beside buttons") << barRect(0, {68, 22}, 3, true) << QRectF(26, 9.5, 4, 3);
        QTest::newRow("too narrow: from the inset") << barRect(0, {46, 22}, 3, true) << QRectF(18, 9.5, 4, 3);
        QTest::newRow("ring beside buttons") << spinnerRect({68, 22}, true) << QRectF(27, 4, 14, 14);
        QTest::newRow("ring in a short pill") << spinnerRect({46, 16}, false) << QRectF(19, 4, 8, 8);
    }
    void parts()
    {
        QFETCH(QRectF, actual);
        QFETCH(QRectF, expected);
        QCOMPARE(actual, expected);
    }

    void firstPlace_data()
    {
        QTest::addColumn<Origin>("actual");
        QTest::addColumn<Origin>("expected");
        const QList<QRect> one{{0, 0, 1280, 800}}, two{{0, 0, 1280, 800}, {1280, 0, 1920, 1080}};
        const QRect full(0, 0, 1280, 800);
        const auto at = OverlayPlacement::initialOrigin;
        const Origin topCentre = QPoint(617, 8);
        QTest::newRow("first launch") << at({}, {}, one, full) << topCentre;
        QTest::newRow("below a top panel") << at({}, {}, one, QRect(0, 32, 1280, 768)) << Origin(QPoint(617, 40));
        QTest::newRow("one key alone") << at(300.0, {}, one, full) << topCentre;
        QTest::newRow("saved") << at(300.0, 500.0, two, full) << Origin(QPoint(277, 500));
        QTest::newRow("saved on the second screen") << at(2000.0, 900.0, two, full) << Origin(QPoint(1977, 900));
        QTest::newRow("half off the edge") << at(1290.0, 10.0, one, full) << Origin(QPoint(1267, 10));
        QTest::newRow("screen unplugged") << at(2000.0, 900.0, one, full) << topCentre;
        QTest::newRow("above the screen") << at(640.0, -100.0, one, full) << topCentre;
        QTest::newRow("nonsense") << at(std::nan(""), 10.0, two, full) << topCentre;
        QTest::newRow("no screen") << at({}, {}, {}, std::nullopt) << Origin();
        QTest::newRow("saved, no screen") << at(300.0, 500.0, {}, std::nullopt) << Origin();
    }
    void firstPlace()
    {
        QFETCH(Origin, actual);
        QFETCH(Origin, expected);
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
        for (int i = 0; i < 300; ++i)
            a.stepListening(22);

        // At full level the middle bar sways between 8.4 and 14, the outer ones between 5.88 and 9.8.
        double lo[3] = {100, 100, 100}, hi[3] = {0, 0, 0};
        for (int i = 0; i < 1000; ++i) {
            a.stepListening(22);
            for (int b = 0; b < 3; ++b) {
                lo[b] = std::min(lo[b], a.currentHeights[b]);
                hi[b] = std::max(hi[b], a.currentHeights[b]);
            }
        }
        QVERIFY(lo[1] >= 8.4 - 1e-9 && hi[1] <= 14 + 1e-9 && hi[1] - lo[1] > 4.0);
        for (int b : {0, 2})
            QVERIFY(lo[b] >= 5.88 - 1e-9 && hi[b] <= 9.8 + 1e-9 && hi[b] - lo[b] > 2.8);

        // Under the gate counts as silence: the level falls every frame down to the resting bars.
        a.amplitude = 0.02;
        for (int i = 0; i < 300; ++i) {
            const double before = a.displayedAmp;
            a.stepListening(22);
            QVERIFY(a.displayedAmp < before);
        }
        for (double h : a.currentHeights)
            QVERIFY(std::abs(h - 3.0) < 1e-3);
    }

    void spinnerTurnsClockwiseAndPulses()
    {
        WaveformAnimation a;
        float lo = 1, hi = 0;
        for (int i = 0; i < 400; ++i) {
            a.stepProcessing();
            lo = std::min(lo, a.spinnerOpacity);
            hi = std::max(hi, a.spinnerOpacity);
        }
        QVERIFY(qFuzzyCompare(a.spinnerAngle, -0.1 * 400));
        QVERIFY(lo >= 0.7f && lo < 0.701f && hi <= 1.0f && hi > 0.999f);
        for (double h : a.currentHeights)
            QCOMPARE(h, 3.0);  // the bars rest while the ring turns
    }
};

QTEST_GUILESS_MAIN(PillGeometryTest)
#include "PillGeometryTest.moc"
