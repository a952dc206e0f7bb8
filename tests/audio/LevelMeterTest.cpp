#include "audio/LevelMeter.h"

#include "support/Sound.h"

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
        const AudioBuffer tone = AudioTest::sine(mono, 1600, 100, 0.5f);  // whole periods
        QVERIFY(std::abs(LevelMeter::rms(tone.samples.data(), tone.frameCount(), 1) - 0.5f / std::sqrt(2.0f)) < 1e-4f);
        QCOMPARE(LevelMeter::rms(nullptr, 0, 1), 0.0f);
        // An odd frame count exercises the tail after the eight-wide loop.
        const AudioBuffer odd = AudioTest::constant(mono, 13, -0.5f);
        QCOMPARE(LevelMeter::rms(odd.samples.data(), 13, 1), 0.5f);

        AudioBuffer stereo = AudioTest::constant({48000, 2}, 1024, 0.1f);
        for (int i = 0; i < 1024; ++i)
            stereo.samples[2 * i + 1] = 0.9f;  // only the first channel is measured
        QCOMPARE(LevelMeter().measure(stereo).rms, 0.1f);
    }

    void levelRisesClampsAndDecaysToRest()
    {
        LevelMeter meter;
        LevelMeter::Reading r;
        for (int i = 0; i < 60; ++i)
            r = meter.measure(AudioTest::constant(mono, 1024, 0.7f));
        QCOMPARE(r.level, 1.0f);  // clamped
        meter.resetLevel();
        QCOMPARE(meter.smoothed(), 0.0f);
        r = meter.measure(AudioTest::constant(mono, 1024, 0.1f));
        QVERIFY(std::abs(r.level - 0.48f) < 1e-6f);  // the first block weighs six tenths, times 8
        for (int i = 0; i < 30; ++i)
            r = meter.measure(AudioBuffer{mono, {}});  // an empty block counts as silence
        QVERIFY(r.level < 1e-9f);
    }
};

QTEST_GUILESS_MAIN(LevelMeterTest)
#include "LevelMeterTest.moc"
