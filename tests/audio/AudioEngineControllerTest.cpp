#include "audio/AudioEngineController.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QTest>

#include <cmath>

namespace {

// A capture source driven by the test: blocks reach the tap when the test pushes them.
class ScriptedSource final : public CaptureSource {
public:
    AudioFormat format{48000, 2};
    QString formatFailure, startFailure;  // non-empty: inputFormat() / start() throws it
    int starts = 0, stops = 0;
    BlockHandler handler;

    AudioFormat inputFormat() override
    {
        if (!formatFailure.isEmpty())
            throw CollaboratorError(formatFailure);
        return format;
    }
    void start(BlockHandler h) override
    {
        if (!startFailure.isEmpty())
            throw CollaboratorError(startFailure);
        handler = std::move(h);
        ++starts;
    }
    void stop() override
    {
        stops += bool(handler);
        handler = nullptr;
    }
    void push(const AudioBuffer& block)
    {
        if (handler)
            handler(block);
    }
};

struct Rig {
    ScriptedSource* source = new ScriptedSource;
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    QList<float> levels;
    QList<AudioBuffer> buffers;

    Rig()
    {
        audio.onAmplitude = [this](float level) { levels << level; };
        audio.onBuffer = [this](AudioBuffer buffer) { buffers << std::move(buffer); };
    }
    void push(int count, float value)
    {
        for (int i = 0; i < count; ++i)
            source->push(AudioTest::constant(source->format, 1024, value));
    }
};

QStringList audioLines(const TestSupport::LogMark& mark)
{
    return mark.messages().filter(QRegularExpression(QStringLiteral("^audio: ")));
}

}  // namespace

class AudioEngineControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void startLogsTheRouteAndConvertsEveryBlock_data()
    {
        QTest::addColumn<double>("inRate");
        QTest::addColumn<int>("inChannels");
        QTest::addColumn<double>("targetRate");  // 0: the default target
        QTest::addColumn<int>("targetChannels");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<double>("outRate");
        QTest::addColumn<int>("outChannels");
        QTest::newRow("default target") << 48000.0 << 2 << 0.0 << 0
                                        << QStringList{QStringLiteral("audio: input=48000.0Hz/2ch → target=16000.0Hz/1ch, converter=yes")}
                                        << 16000.0 << 1;
        QTest::newRow("chosen target") << 44100.0 << 1 << 22050.5 << 2
                                       << QStringList{QStringLiteral("audio: input=44100.0Hz/1ch → target=22050.5Hz/2ch, converter=yes")}
                                       << 22050.5 << 2;
        QTest::newRow("matching formats")
            << 16000.0 << 1 << 0.0 << 0
            << QStringList{QStringLiteral("audio: input=16000.0Hz/1ch → target=16000.0Hz/1ch, converter=passthrough")} << 16000.0 << 1;
        QTest::newRow("no converter possible")
            << 48000.0 << 3 << 16000.0 << 2
            << QStringList{QStringLiteral("audio: AVAudioConverter init FAILED for 48000 Hz, 3 ch, Float32, interleaved → 16000 Hz, 2 ch, Float32, interleaved"),
                           QStringLiteral("audio: input=48000.0Hz/3ch → target=16000.0Hz/2ch, converter=passthrough")}
            << 48000.0 << 3;
    }
    void startLogsTheRouteAndConvertsEveryBlock()
    {
        QFETCH(double, inRate);
        QFETCH(int, inChannels);
        QFETCH(double, targetRate);
        QFETCH(int, targetChannels);
        QFETCH(QStringList, lines);
        QFETCH(double, outRate);
        QFETCH(int, outChannels);
        Rig rig;
        rig.source->format = {inRate, inChannels};
        if (targetRate > 0)
            rig.audio.setTargetFormat(AudioFormat{targetRate, targetChannels});
        TestSupport::LogMark mark;
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
        QCOMPARE(audioLines(mark), lines);
        const AudioBuffer tone = AudioTest::sine(rig.source->format, 1024, 440, 0.3f);
        for (int i = 0; i < 3; ++i)
            rig.source->push(tone);
        rig.source->push(AudioBuffer{rig.source->format, {}});  // empty: still handed on, counts as silence
        QCOMPARE(rig.buffers.size(), 4);
        QCOMPARE(rig.levels.size(), 4);
        QVERIFY(rig.levels[3] < rig.levels[2]);
        for (const AudioBuffer& b : rig.buffers)
            QCOMPARE(b.format, (AudioFormat{outRate, outChannels}));
        if (rig.source->format == rig.buffers[0].format)
            QCOMPARE(rig.buffers[0].samples, tone.samples);
    }

    void stopReportsRestAndTheNextStartBeginsFromIt()
    {
        Rig rig;
        rig.audio.stop();  // not running: nothing at all
        QCOMPARE(rig.levels, QList<float>{});
        rig.audio.start();
        rig.audio.start();  // already running: nothing
        QCOMPARE(rig.source->starts, 1);
        rig.push(20, 0.05f);
        rig.audio.stop();
        QVERIFY(!rig.audio.isRunning());
        QVERIFY(!rig.source->handler);
        QCOMPARE(rig.levels.last(), 0.0f);
        rig.audio.start();
        rig.push(1, 0.05f);
        QVERIFY(std::abs(rig.levels.last() - 0.24f) < 1e-6f);  // 0.05 * 0.6 * 8: smoothing from rest
    }

    void failedStartThrowsAndStaysStopped()
    {
        Rig rig;
        rig.source->startFailure = QStringLiteral("No microphone: the sound server offers no audio input");
        try {
            rig.audio.start();
            QFAIL("start() did not throw");
        } catch (const CollaboratorError& e) {
            QCOMPARE(e.localizedDescription(), rig.source->startFailure);
        }
        QVERIFY(!rig.audio.isRunning());
        rig.source->startFailure.clear();
        rig.source->formatFailure = QStringLiteral("No microphone: no sound server (PulseAudio or PipeWire) is running");
        QVERIFY_THROWS_EXCEPTION(CollaboratorError, rig.audio.start());
        QVERIFY(!rig.audio.isRunning());
        rig.source->formatFailure.clear();
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
    }

    void configurationChangeRestartsOrStopsCleanly()
    {
        Rig rig;
        rig.audio.start();
        rig.push(5, 0.1f);
        rig.source->format = {44100, 1};
        TestSupport::LogMark mark;
        Q_EMIT rig.source->configurationChanged();
        QCOMPARE(audioLines(mark), QStringList{});  // delivered on the event loop, not inside emit
        QVERIFY(TestSupport::waitUntil([&] { return audioLines(mark).size() == 3; }));
        QCOMPARE(audioLines(mark), (QStringList{
                                       QStringLiteral("audio: configuration changed — rebuilding tap and restarting"),
                                       QStringLiteral("audio: input=44100.0Hz/1ch → target=16000.0Hz/1ch, converter=yes"),
                                       QStringLiteral("audio: engine restarted after configuration change"),
                                   }));
        QVERIFY(rig.audio.isRunning());
        QCOMPARE(rig.source->stops, 1);
        rig.push(1, 0.1f);
        QVERIFY(std::abs(rig.levels.last() - 0.48f) < 1e-6f);  // level restarted from rest
        QCOMPARE(rig.buffers.last().format, (AudioFormat{16000, 1}));

        // A restart that fails stops capture, and later changes are not acted on.
        rig.source->startFailure = QStringLiteral("Cannot open the microphone \"USB\" (Qt audio error 1)");
        Q_EMIT rig.source->configurationChanged();
        QVERIFY(TestSupport::waitUntil([&] { return !rig.audio.isRunning(); }));
        QCOMPARE(audioLines(mark).last(),
                 QStringLiteral("audio: restart after configuration change FAILED: Cannot open the microphone \"USB\" (Qt audio error 1)"));
        const qsizetype lines = audioLines(mark).size();
        Q_EMIT rig.source->configurationChanged();
        QTest::qWait(20);
        QCOMPARE(audioLines(mark).size(), lines);
        rig.source->startFailure.clear();
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
    }

};

QTEST_GUILESS_MAIN(AudioEngineControllerTest)
#include "AudioEngineControllerTest.moc"
