// Capture on a scripted source, through the converter to the tap and the level meter.

#include "audio/AudioEngineController.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QTest>

#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// A capture source driven by the test: blocks reach the tap when the test hands them over, from
// any thread; as with a microphone, stop() waits for a block being handed over.
class ScriptedSource final : public CaptureSource {
public:
    AudioFormat format;
    QString failure;  // non-empty: start() throws it
    int stops = 0;  // of a running capture

    AudioFormat inputFormat() override { return format; }
    void start(BlockHandler h) override
    {
        if (!failure.isEmpty())
            throw CollaboratorError(failure);
        std::lock_guard lock(mutex_);
        handler_ = std::move(h);
    }
    void stop() override
    {
        std::lock_guard lock(mutex_);
        stops += bool(std::exchange(handler_, nullptr));
    }
    bool delivering()
    {
        std::lock_guard lock(mutex_);
        return bool(handler_);
    }
    void deliver(const AudioBuffer& block)
    {
        std::lock_guard lock(mutex_);
        if (handler_)
            handler_(block);
    }

private:
    std::mutex mutex_;
    BlockHandler handler_;
};

struct Rig {
    ScriptedSource* source = new ScriptedSource;
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    QList<float> levels;
    QList<AudioBuffer> buffers;

    explicit Rig(AudioFormat format = {48000, 2})
    {
        source->format = format;
        audio.onAmplitude = [this](float level) { levels << level; };
        audio.onBuffer = [this](AudioBuffer buffer) { buffers << std::move(buffer); };
    }
    void push(int count, float value, int frames = 1024)
    {
        for (int i = 0; i < count; ++i)
            source->deliver(AudioTest::constant(source->format, frames, value));
    }
};

// The capture's log lines but the first block's timing, which varies.
QStringList audioLines(const TestSupport::LogMark& mark)
{
    return mark.messages().filter(QRegularExpression("^audio: (?!first block)"));
}

}  // namespace

Q_DECLARE_METATYPE(AudioFormat)

class AudioPipelineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // The tone survives conversion, 12 kHz is removed rather than folded back to 4 kHz.
    void routeConvertsEveryBlockKeepingTheTone_data()
    {
        using F = AudioFormat;
        QTest::addColumn<F>("input");
        QTest::addColumn<F>("target");  // no channels: the default target
        QTest::addColumn<double>("frequency");
        QTest::addColumn<QString>("lines");
        QTest::newRow("44.1 kHz stereo") << F{44100, 2} << F{} << 1000.0 << "input=44100.0Hz/2ch → target=16000.0Hz/1ch, converter=yes";
        QTest::newRow("8 kHz to stereo") << F{8000, 1} << F{22050.5, 2} << 1000.0 << "input=8000.0Hz/1ch → target=22050.5Hz/2ch, converter=yes";
        QTest::newRow("12 kHz removed") << F{48000, 1} << F{} << 12000.0 << "input=48000.0Hz/1ch → target=16000.0Hz/1ch, converter=yes";
        QTest::newRow("no converter") << F{48000, 3} << F{16000, 2} << 1000.0
                                      << "AVAudioConverter init FAILED for 48000 Hz, 3 ch, Float32, interleaved → 16000 Hz, 2 ch, "
                                         "Float32, interleaved\ninput=48000.0Hz/3ch → target=16000.0Hz/2ch, converter=passthrough";
    }
    void routeConvertsEveryBlockKeepingTheTone()
    {
        QFETCH(AudioFormat, input);
        QFETCH(AudioFormat, target);
        QFETCH(double, frequency);
        QFETCH(QString, lines);
        Rig rig(input);
        rig.audio.setTargetFormat(target.channelCount ? std::optional(target) : std::nullopt);
        TestSupport::LogMark mark;
        rig.audio.start();
        QCOMPARE(audioLines(mark).replaceInStrings(QRegularExpression("^audio: "), QString()).join('\n'), lines);
        const bool converts = lines.endsWith("yes");
        const AudioFormat output = converts ? target.channelCount ? target : AudioFormat{16000, 1} : input;
        AudioBuffer out{output, {}};
        for (int b = 0; b < 100; ++b) {
            const AudioBuffer in = AudioTest::sine(input, 1024, frequency, 0.5f, long(b) * 1024);
            rig.source->deliver(in);
            const AudioBuffer& got = rig.buffers.last();
            QCOMPARE(got.format, output);
            if (converts)  // allocated once at the capacity rule's size, so the audio thread never reallocates
                QCOMPARE(got.samples.capacity(), std::size_t(*AudioConverter::frameCapacity(in, output)) * output.channelCount);
            out.samples.insert(out.samples.end(), got.samples.begin(), got.samples.end());
        }
        if (!converts) {
            QCOMPARE(out.samples, AudioTest::sine(input, 100 * 1024, frequency, 0.5f).samples);
            return;
        }
        // Every frame comes out: what the resampler held back, once the capture stops.
        const qsizetype delivered = rig.buffers.size();
        rig.audio.stop();
        for (qsizetype b = delivered; b < rig.buffers.size(); ++b)
            out.samples.insert(out.samples.end(), rig.buffers[b].samples.begin(), rig.buffers[b].samples.end());
        const double frames = 100 * 1024 * output.sampleRate / input.sampleRate;
        QVERIFY2(std::abs(double(out.frameCount()) - frames) <= 1, qPrintable(QString::number(out.frameCount())));
        const std::size_t settled = 2000;  // past the filter's start-up
        const std::vector<float> first = AudioTest::channel(out, 0);
        for (int c = 1; c < output.channelCount; ++c)
            QCOMPARE(AudioTest::channel(out, c), first);
        const double rms = LevelMeter::rms(first.data() + settled, int(first.size() - settled), 1);
        const double kept = 2 * frequency < output.sampleRate ? 0.5 / std::sqrt(2.0) : 0;
        QVERIFY2(std::abs(rms - kept) < 0.005, qPrintable(QString::number(rms)));
        if (kept > 0) {  // the same tone and nothing else
            QVERIFY(std::abs(AudioTest::tonePower(first, output.sampleRate, frequency, settled) - 0.0625) < 0.002);
            QVERIFY(AudioTest::tonePower(first, output.sampleRate, 3000, settled) < 1e-6);
        }
    }

    // A block in another format is refused and the stream goes on; a rate that is no number gets no converter.
    void badFormatsAreRefused()
    {
        QVERIFY(!AudioConverter::create({std::nan(""), 1}, {16000, 1}));
        const auto converter = AudioConverter::create({48000, 2}, {16000, 1});
        QCOMPARE(converter->convertBlock(AudioTest::constant({44100, 2}, 1024, 0.1f)), std::nullopt);
        QVERIFY(converter->convertBlock(AudioTest::constant({48000, 2}, 1024, 0.1f)));
    }

    void levelFollowsTheFirstChannelAndRestsWhenStopped()
    {
        const AudioBuffer sine = AudioTest::sine({16000, 1}, 1600, 100, 0.5f);  // whole periods: a root mean square, not a peak
        QCOMPARE(LevelMeter::rms(sine.samples.data(), 1600, 1), 0.5f / std::sqrt(2.0f));
        Rig rig({16000, 2});
        TestSupport::LogMark mark;
        rig.audio.start();
        rig.audio.start();  // already running: nothing
        QCOMPARE(audioLines(mark).size(), 1);
        AudioBuffer stereo = AudioTest::constant(rig.source->format, 1024, 0.1f);
        for (int i = 0; i < 1024; ++i)
            stereo.samples[2 * i + 1] = 0.9f;  // only the first channel is measured
        rig.source->deliver(stereo);
        QCOMPARE(rig.levels.last(), 0.48f);  // the first block weighs six tenths, times 8
        QCOMPARE(rig.buffers.last().samples, std::vector<float>(1024, 0.5f));  // yet both are mixed into the buffer
        rig.push(44, 0.7f);
        QCOMPARE(rig.levels.last(), 1.0f);  // clamped
        QCOMPARE(audioLines(mark).mid(1), QStringList{"audio: peak amp 1.000 (rms 0.7000)"});  // every 45 blocks

        rig.audio.stop();
        QVERIFY(!rig.audio.isRunning() && !rig.source->delivering());
        QCOMPARE(rig.levels.last(), 0.0f);
        rig.audio.start();
        rig.push(1, -0.05f, 13);  // from rest; an odd frame count goes through the tail of the sum
        QCOMPARE(rig.levels.last(), 0.24f);
        rig.push(30, 0, 0);  // empty blocks are handed on and count as silence
        QVERIFY(rig.levels.last() < 1e-9f);
        QCOMPARE(rig.buffers.size(), 76);
    }

    void inputChangesRestartOrStopCleanly()
    {
        Rig rig;
        rig.audio.start();
        rig.push(5, 0.1f);

        // A change of input rebuilds the tap and restarts from rest.
        rig.source->format = {44100, 1};
        TestSupport::LogMark mark;
        Q_EMIT rig.source->configurationChanged();
        QVERIFY(audioLines(mark).isEmpty());  // delivered on the event loop, not inside emit
        QVERIFY(mark.waitFor("audio: engine restarted after configuration change"));
        QVERIFY(rig.audio.isRunning() && rig.source->stops == 1);
        rig.push(1, 0.1f);
        QCOMPARE(rig.levels.last(), 0.48f);
        QCOMPARE(audioLines(mark)[1], "audio: input=44100.0Hz/1ch → target=16000.0Hz/1ch, converter=yes");
        QCOMPARE(rig.buffers.last().format, (AudioFormat{16000, 1}));

        // A restart that fails stops capture, and later changes are not acted on.
        rig.source->failure = QStringLiteral("Cannot open the microphone \"USB\" (Qt audio error 1)");
        Q_EMIT rig.source->configurationChanged();
        QVERIFY(TestSupport::waitUntil([&] { return !rig.audio.isRunning(); }));
        QCOMPARE(audioLines(mark).last(), "audio: restart after configuration change FAILED: " + rig.source->failure);
        const qsizetype lines = audioLines(mark).size();
        Q_EMIT rig.source->configurationChanged();
        QTest::qWait(20);
        QCOMPARE(audioLines(mark).size(), lines);
    }

    void aStopWithTheLastWordTakesInItsEnd()
    {
        Rig rig({16000, 1});
        rig.audio.start();
        rig.push(3, 0.0005f);  // the room
        rig.push(2, 0.1f);     // speech, still going on as the key comes up
        const qsizetype before = rig.buffers.size();
        TestSupport::LogMark mark;
        // The rest of the word and the quiet after it come from the microphone's thread meanwhile.
        std::thread microphone([&rig] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            rig.push(1, 0.08f);
            rig.push(1, 0.0006f);
        });
        rig.audio.stopAfterSpeech();
        microphone.join();
        QCOMPARE(rig.buffers.size(), before + 2);
        QVERIFY(!rig.audio.isRunning() && rig.source->stops == 1);
        QCOMPARE(mark.messages().filter("audio: speech went on at the stop").size(), 1);

        // After a pause, the stop does not wait for anything.
        rig.audio.start();
        rig.push(2, 0.1f);
        rig.push(1, 0.0005f);
        const TestSupport::LogMark paused;
        rig.audio.stopAfterSpeech();
        QVERIFY(!rig.audio.isRunning() && rig.source->stops == 2);
        QVERIFY(paused.messages().filter("speech went on").isEmpty());
    }
};

QTEST_GUILESS_MAIN(AudioPipelineTest)
#include "AudioPipelineTest.moc"
