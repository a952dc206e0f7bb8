#include "ui/WaveformAnimation.h"

#include <QTest>

#include <algorithm>
#include <cmath>

namespace {
constexpr double kPill = 22.0;

void run(WaveformAnimation& a, int frames)
{
    for (int i = 0; i < frames; ++i)
        a.stepListening(kPill);
}
}  // namespace

class WaveformAnimationTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void noiseGateAndLevelCurve()
    {
        QCOMPARE(WaveformAnimation::targetLevel(0.0), 0.0);
        QCOMPARE(WaveformAnimation::targetLevel(0.02), 0.0);
        QCOMPARE(WaveformAnimation::targetLevel(0.0299), 0.0);
        QVERIFY(qFuzzyCompare(WaveformAnimation::targetLevel(0.04), 0.4));
        QCOMPARE(WaveformAnimation::targetLevel(0.25), 1.0);
        QCOMPARE(WaveformAnimation::targetLevel(0.8), 1.0);
    }

    void levelEasesTwelvePercentPerFrame()
    {
        WaveformAnimation a;
        a.amplitude = 0.25;
        a.stepListening(kPill);
        QVERIFY(qFuzzyCompare(a.displayedAmp, 0.12));
        QVERIFY(qFuzzyCompare(a.phase, 0.13));
        a.stepListening(kPill);
        QVERIFY(qFuzzyCompare(a.displayedAmp, 0.12 + 0.88 * 0.12));
    }

    void silenceSettlesTheBarsAtTheirMinimum()
    {
        WaveformAnimation a;
        a.amplitude = 0.5;
        run(a, 200);
        QVERIFY(a.displayedAmp > 0.99);
        a.amplitude = 0.02;  // below the gate: counts as silence
        double previous = a.displayedAmp;
        for (int i = 0; i < 300; ++i) {
            a.stepListening(kPill);
            QVERIFY(a.displayedAmp < previous);
            previous = a.displayedAmp;
        }
        QVERIFY(a.displayedAmp < 1e-6);
        for (double h : a.currentHeights)
            QVERIFY(std::abs(h - 3.0) < 1e-3);
    }

    void fullLevelSwaysWithinItsBounds()
    {
        WaveformAnimation a;
        a.amplitude = 0.3;
        run(a, 300);
        double midMin = 100, midMax = 0, outerMin = 100, outerMax = 0;
        for (int i = 0; i < 1000; ++i) {
            a.stepListening(kPill);
            midMin = std::min(midMin, a.currentHeights[1]);
            midMax = std::max(midMax, a.currentHeights[1]);
            for (int bar : {0, 2}) {
                outerMin = std::min(outerMin, a.currentHeights[bar]);
                outerMax = std::max(outerMax, a.currentHeights[bar]);
            }
        }
        // Middle between 8.4 and 14, outer ones between 5.88 and 9.8; the easing trims the peaks a
        // little, but the bars clearly swing across most of that range.
        QVERIFY2(midMin >= 8.4 - 1e-9 && midMax <= 14 + 1e-9, qPrintable(QStringLiteral("%1..%2").arg(midMin).arg(midMax)));
        QVERIFY(outerMin >= 5.88 - 1e-9 && outerMax <= 9.8 + 1e-9);
        QVERIFY(midMax - midMin > 4.0);
        QVERIFY(outerMax - outerMin > 2.8);
    }

    void spinnerTurnsClockwiseAndPulses()
    {
        WaveformAnimation a;
        a.stepProcessing();
        QVERIFY(qFuzzyCompare(a.spinnerAngle, -0.1));
        QVERIFY(qFuzzyCompare(a.phase, 0.05));
        float lo = 1, hi = 0;
        for (int i = 0; i < 400; ++i) {
            a.stepProcessing();
            lo = std::min(lo, a.spinnerOpacity);
            hi = std::max(hi, a.spinnerOpacity);
        }
        QVERIFY(lo >= 0.7f && lo < 0.701f);
        QVERIFY(hi <= 1.0f && hi > 0.999f);
        QVERIFY(qFuzzyCompare(a.spinnerAngle, -0.1 * 401));
        // The bars are left alone while the ring turns.
        for (double h : a.currentHeights)
            QCOMPARE(h, 3.0);
    }
};

QTEST_GUILESS_MAIN(WaveformAnimationTest)
#include "WaveformAnimationTest.moc"
