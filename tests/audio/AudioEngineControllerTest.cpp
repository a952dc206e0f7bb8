#include "audio/AudioEngineController.h"

#include "AudioTestSupport.h"
#include "support/TestSupport.h"

#include <QTest>

#include <cmath>

namespace {

// A capture source driven by the test: blocks reach the tap when the test pushes them.
class ScriptedSource final : public CaptureSource {
public:
    AudioFormat format{48000, 2};
    QString formatFailure;  // non-empty: inputFormat() throws this
    QString startFailure;   // non-empty: start() throws this
    int starts = 0;
    int stops = 0;

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
        if (handler)
            ++stops;
        handler = nullptr;
    }
    bool capturing() const { return bool(handler); }
    void push(const AudioBuffer& block)
    {
        if (handler)
            handler(block);
    }

private:
    BlockHandler handler;
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
    void startLogsTheRouteAndConvertsToTheDefaultTarget()
    {
        Rig rig;
        TestSupport::LogMark mark;
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
        QCOMPARE(audioLines(mark), QStringList{QStringLiteral("audio: input=48000.0Hz/2ch → target=16000.0Hz/1ch, converter=yes")});
        rig.push(3, 0.05f);
        QCOMPARE(rig.buffers.size(), 3);
        for (const AudioBuffer& b : rig.buffers) {
            QCOMPARE(b.format, (AudioFormat{16000, 1}));
            QVERIFY(b.frameCount() <= 1365);
        }
        QCOMPARE(rig.levels.size(), 3);
        QVERIFY(std::abs(rig.levels[0] - 0.24f) < 1e-6f);  // 0.05 * 0.6 * 8
    }

    void targetFormatIsReadAtEachStart()
    {
        Rig rig;
        rig.source->format = {44100, 1};
        rig.audio.setTargetFormat(AudioFormat{22050.5, 2});
        TestSupport::LogMark mark;
        rig.audio.start();
        rig.audio.setTargetFormat(AudioFormat{16000, 1});  // while running: not yet
        rig.push(1, 0.1f);
        QCOMPARE(rig.buffers.last().format, (AudioFormat{22050.5, 2}));
        rig.audio.stop();
        rig.audio.start();
        rig.push(1, 0.1f);
        QCOMPARE(rig.buffers.last().format, (AudioFormat{16000, 1}));
        rig.audio.stop();
        rig.audio.setTargetFormat(std::nullopt);  // back to the default target
        rig.source->format = {16000, 1};
        rig.audio.start();
        QCOMPARE(audioLines(mark), (QStringList{
                                       QStringLiteral("audio: input=44100.0Hz/1ch → target=22050.5Hz/2ch, converter=yes"),
                                       QStringLiteral("audio: input=44100.0Hz/1ch → target=16000.0Hz/1ch, converter=yes"),
                                       QStringLiteral("audio: input=16000.0Hz/1ch → target=16000.0Hz/1ch, converter=passthrough"),
                                   }));
    }

    void matchingFormatsPassBlocksThroughUnchanged()
    {
        Rig rig;
        rig.source->format = {16000, 1};
        rig.audio.start();
        const AudioBuffer tone = AudioTest::sine({16000, 1}, 1024, 440, 0.3f);
        rig.source->push(tone);
        rig.source->push(AudioBuffer{{16000, 1}, {}});  // empty: still handed on, counts as silence
        QCOMPARE(rig.buffers.size(), 2);
        QCOMPARE(rig.buffers[0].format, tone.format);
        QCOMPARE(rig.buffers[0].samples, tone.samples);
        QCOMPARE(rig.buffers[1].frameCount(), 0);
        QCOMPARE(rig.levels.size(), 2);
        QVERIFY(rig.levels[1] < rig.levels[0]);
    }

    void converterThatCannotBeMadeFallsBackToPassThrough()
    {
        Rig rig;
        rig.source->format = {48000, 3};
        rig.audio.setTargetFormat(AudioFormat{16000, 2});
        TestSupport::LogMark mark;
        rig.audio.start();
        QCOMPARE(audioLines(mark), (QStringList{
                                       QStringLiteral("audio: AVAudioConverter init FAILED for 48000 Hz, 3 ch, Float32, interleaved → 16000 Hz, 2 ch, Float32, interleaved"),
                                       QStringLiteral("audio: input=48000.0Hz/3ch → target=16000.0Hz/2ch, converter=passthrough"),
                                   }));
        rig.push(1, 0.2f);
        QCOMPARE(rig.buffers.size(), 1);
        QCOMPARE(rig.buffers[0].format, (AudioFormat{48000, 3}));
    }

    void peakLineEvery45BlocksAcrossStopAndStart()
    {
        Rig rig;
        rig.audio.start();
        TestSupport::LogMark mark;
        rig.push(30, 0.05f);
        rig.audio.stop();
        rig.audio.start();
        rig.push(14, 0.01f);
        QCOMPARE(audioLines(mark).filter(QStringLiteral("peak")), QStringList{});
        rig.push(1, 0.01f);  // the 45th block since the first start
        QCOMPARE(audioLines(mark).filter(QStringLiteral("peak")),
                 QStringList{QStringLiteral("audio: peak amp 0.400 (rms 0.0100)")});
        rig.push(44, 0.0f);  // the first of them is the loudest: 0.4 of the settled 0.01, times 8
        QCOMPARE(audioLines(mark).filter(QStringLiteral("peak")).size(), 1);
        rig.push(1, 0.0f);
        QCOMPARE(audioLines(mark).filter(QStringLiteral("peak")).last(), QStringLiteral("audio: peak amp 0.032 (rms 0.0000)"));
    }

    void stopResetsTheLevelAndReportsRest()
    {
        Rig rig;
        rig.audio.stop();  // not running: nothing at all
        QCOMPARE(rig.levels, QList<float>{});
        QCOMPARE(rig.source->stops, 0);

        rig.audio.start();
        rig.audio.start();  // already running: nothing
        QCOMPARE(rig.source->starts, 1);
        rig.push(20, 0.05f);
        rig.audio.stop();
        QVERIFY(!rig.audio.isRunning());
        QVERIFY(!rig.source->capturing());
        QCOMPARE(rig.levels.last(), 0.0f);
        const qsizetype reported = rig.levels.size();
        rig.audio.stop();
        QCOMPARE(rig.levels.size(), reported);
        // Stopped, it no longer follows configuration changes.
        TestSupport::LogMark mark;
        Q_EMIT rig.source->configurationChanged();
        QTest::qWait(20);
        QCOMPARE(audioLines(mark), QStringList{});
        QCOMPARE(rig.source->starts, 1);

        rig.audio.start();
        rig.push(1, 0.05f);
        QVERIFY(std::abs(rig.levels.last() - 0.24f) < 1e-6f);  // smoothing starts from rest again
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
        // No observer was registered: a change is not acted on.
        TestSupport::LogMark mark;
        Q_EMIT rig.source->configurationChanged();
        QTest::qWait(20);
        QCOMPARE(audioLines(mark), QStringList{});

        rig.source->startFailure.clear();
        rig.source->formatFailure = QStringLiteral("No microphone: no sound server (PulseAudio or PipeWire) is running");
        QVERIFY_THROWS_EXCEPTION(CollaboratorError, rig.audio.start());
        QVERIFY(!rig.audio.isRunning());
        rig.source->formatFailure.clear();
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
    }

    void configurationChangeRebuildsTheTapAndRestarts()
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
        QCOMPARE(rig.source->starts, 2);
        QCOMPARE(rig.source->stops, 1);
        rig.push(1, 0.1f);
        QVERIFY(std::abs(rig.levels.last() - 0.48f) < 1e-6f);  // level restarted from rest
        QCOMPARE(rig.buffers.last().format, (AudioFormat{16000, 1}));
    }

    void failedRestartStopsAndLaterChangesAreIgnored()
    {
        Rig rig;
        rig.audio.start();
        rig.source->startFailure = QStringLiteral("Cannot open the microphone \"USB\" (Qt audio error 1)");
        TestSupport::LogMark mark;
        Q_EMIT rig.source->configurationChanged();
        QVERIFY(TestSupport::waitUntil([&] { return !rig.audio.isRunning(); }));
        QCOMPARE(audioLines(mark).last(),
                 QStringLiteral("audio: restart after configuration change FAILED: Cannot open the microphone \"USB\" (Qt audio error 1)"));
        const qsizetype lines = audioLines(mark).size();
        Q_EMIT rig.source->configurationChanged();
        QTest::qWait(20);
        QCOMPARE(audioLines(mark).size(), lines);
        rig.audio.stop();  // stopped already: harmless, no level report
        rig.source->startFailure.clear();
        rig.audio.start();
        QVERIFY(rig.audio.isRunning());
    }
};

QTEST_GUILESS_MAIN(AudioEngineControllerTest)
#include "AudioEngineControllerTest.moc"
