#include "audio/LevelMeter.h"

#include "AudioTestSupport.h"

#include <QTest>

#include <cmath>

namespace {
const AudioFormat mono{16000, 1};
}

class LevelMeterTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void rmsOfKnownSignals()
    {
        const AudioBuffer dc = AudioTest::constant(mono, 1024, 0.25f);
        QCOMPARE(LevelMeter::rms(dc.samples.data(), dc.frameCount(), 1), 0.25f);
        const AudioBuffer tone = AudioTest::sine(mono, 1600, 100, 0.5f);  // whole periods
        QVERIFY(std::abs(LevelMeter::rms(tone.samples.data(), tone.frameCount(), 1) - 0.5f / std::sqrt(2.0f)) < 1e-4f);
        QCOMPARE(LevelMeter::rms(nullptr, 0, 1), 0.0f);
        // An odd frame count exercises the tail after the eight-wide loop.
        const AudioBuffer odd = AudioTest::constant(mono, 13, -0.5f);
        QCOMPARE(LevelMeter::rms(odd.samples.data(), 13, 1), 0.5f);
    }

    void onlyTheFirstChannelIsMeasured()
    {
        AudioBuffer stereo = AudioTest::constant({48000, 2}, 1024, 0.0f);
        for (int i = 0; i < 1024; ++i)
            stereo.samples[2 * i + 1] = 0.9f;  // loud right channel, silent left
        LevelMeter meter;
        QCOMPARE(meter.measure(stereo).rms, 0.0f);
        for (int i = 0; i < 1024; ++i)
            stereo.samples[2 * i] = 0.1f;
        QCOMPARE(meter.measure(stereo).rms, 0.1f);
    }

    void steadyInputSettles()
    {
        LevelMeter meter;
        LevelMeter::Reading r;
        for (int i = 0; i < 60; ++i)
            r = meter.measure(AudioTest::constant(mono, 1024, 0.05f));
        QCOMPARE(r.rms, 0.05f);
        QVERIFY(std::abs(meter.smoothed() - 0.05f) < 1e-6f);
        QVERIFY(std::abs(r.level - 0.4f) < 1e-5f);

        LevelMeter loud;
        for (int i = 0; i < 60; ++i)
            r = loud.measure(AudioTest::constant(mono, 1024, 0.125f));
        QCOMPARE(r.level, 1.0f);  // exactly, clamped
        for (int i = 0; i < 5; ++i)
            r = loud.measure(AudioTest::constant(mono, 1024, 0.7f));
        QCOMPARE(r.level, 1.0f);
    }

    void firstBlockWeighsSixTenthsAndSilenceDecays()
    {
        LevelMeter meter;
        LevelMeter::Reading r = meter.measure(AudioTest::constant(mono, 1024, 0.1f));
        QVERIFY(std::abs(meter.smoothed() - 0.06f) < 1e-7f);
        QVERIFY(std::abs(r.level - 0.48f) < 1e-6f);
        float previous = meter.smoothed();
        for (int i = 0; i < 30; ++i) {
            r = meter.measure(AudioTest::constant(mono, 1024, 0.0f));
            QCOMPARE(r.rms, 0.0f);
            QVERIFY(std::abs(meter.smoothed() - previous * 0.4f) <= previous * 1e-6f);
            previous = meter.smoothed();
        }
        QVERIFY(r.level < 1e-9f);
        meter.resetLevel();
        QCOMPARE(meter.smoothed(), 0.0f);
    }

    void peakLineEvery45BlocksWithThePeakSinceTheLast()
    {
        LevelMeter meter;
        QList<int> dueAt;
        QList<float> peaks;
        for (int i = 1; i <= 135; ++i) {
            // Empty blocks stand for the silence: they count as silent and still advance the cadence.
            const float value = i == 10 ? 0.1f : (i == 60 ? 0.02f : 0.0f);
            const LevelMeter::Reading r = meter.measure(value ? AudioTest::constant(mono, 256, value) : AudioBuffer{mono, {}});
            if (r.logDue) {
                dueAt << i;
                peaks << r.peakSinceLog;
            }
        }
        QCOMPARE(dueAt, (QList<int>{45, 90, 135}));
        QVERIFY(std::abs(peaks[0] - 0.48f) < 1e-6f);   // block 10: 0.1 * 0.6 * 8
        QVERIFY(std::abs(peaks[1] - 0.096f) < 1e-6f);  // block 60 alone; block 10 long forgotten
        QCOMPARE(peaks[2], 0.0f);                       // the peak restarts after each line
    }
};

QTEST_GUILESS_MAIN(LevelMeterTest)
#include "LevelMeterTest.moc"
