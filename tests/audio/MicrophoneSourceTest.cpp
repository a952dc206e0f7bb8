// The microphone path against a real PulseAudio daemon that the test starts in its own sandbox: two
// null sinks whose monitors are remapped into inputs, so that playing a file into a sink is heard
// by "its" microphone in real time.

#include "audio/AudioEngineController.h"
#include "audio/MicrophoneSource.h"

#include "AudioTestSupport.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <atomic>
#include <mutex>

namespace {

QString run(const QString& program, const QStringList& args, bool* ok = nullptr)
{
    QProcess p;
    p.start(program, args);
    const bool finished = p.waitForFinished(15000);
    if (ok)
        *ok = finished && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

QString pactl(const QStringList& args, bool* ok = nullptr)
{
    return run(QStringLiteral("pactl"), args, ok);
}

// What the controller reported, gathered on the audio thread.
struct Meter {
    std::mutex mutex;
    std::vector<float> levels;
    long blocks = 0;
    bool allAt16k = true;

    void attach(AudioEngineController& audio)
    {
        audio.onAmplitude = [this](float level) {
            std::lock_guard lock(mutex);
            levels.push_back(level);
        };
        audio.onBuffer = [this](AudioBuffer buffer) {
            std::lock_guard lock(mutex);
            ++blocks;
            allAt16k = allAt16k && buffer.format == AudioFormat{16000, 1};
        };
    }
    long count()
    {
        std::lock_guard lock(mutex);
        return blocks;
    }
    // The loudest level among those reported after the first `from`.
    float loudestSince(std::size_t from)
    {
        std::lock_guard lock(mutex);
        float m = 0;
        for (std::size_t i = from; i < levels.size(); ++i)
            m = std::max(m, levels[i]);
        return m;
    }
    std::size_t reported()
    {
        std::lock_guard lock(mutex);
        return levels.size();
    }
};

}  // namespace

class MicrophoneSourceTest : public QObject {
    Q_OBJECT
    QProcess daemon_;
    QString speech_;

    // Plays the speech into a sink (real-time, like a person talking) and waits for it to end.
    bool play(const QString& sink)
    {
        QProcess paplay;
        paplay.start(QStringLiteral("paplay"), {QStringLiteral("--device=") + sink, speech_});
        while (!paplay.waitForFinished(10))
            QCoreApplication::processEvents();
        return paplay.exitStatus() == QProcess::NormalExit && paplay.exitCode() == 0;
    }

    static bool waitForLog(const TestSupport::LogMark& mark, const QString& message)
    {
        return TestSupport::waitUntil([&] { return mark.messages().contains(message); }, 15000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // This test runs the only daemon.
        QVERIFY(AudioTest::forbidSoundServerAutospawn());

        daemon_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        daemon_.start(QStringLiteral("pulseaudio"),
                      {QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"), QStringLiteral("--disallow-exit"),
                       QStringLiteral("-n"), QStringLiteral("--log-level=error"),
                       QStringLiteral("--load=module-native-protocol-unix"),
                       QStringLiteral("--load=module-null-sink sink_name=vsink"),
                       QStringLiteral("--load=module-null-sink sink_name=vsink2")});
        QVERIFY2(daemon_.waitForStarted(10000), "pulseaudio is needed (scripts/setup.sh --test installs it)");
        bool up = false;
        QVERIFY(TestSupport::waitUntil([&] {
            pactl({QStringLiteral("info")}, &up);
            return up;
        }, 15000));
        bool ok = false;
        pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"), QStringLiteral("master=vsink.monitor"),
               QStringLiteral("source_name=vmic"), QStringLiteral("source_properties=device.description=FirstMic")}, &ok);
        QVERIFY(ok);
        pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"), QStringLiteral("master=vsink2.monitor"),
               QStringLiteral("source_name=vmic2"), QStringLiteral("source_properties=device.description=SecondMic")}, &ok);
        QVERIFY(ok);
        // The second one listed is the default: Qt alone would pick the first.
        pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic2")}, &ok);
        QVERIFY(ok);

        speech_ = AudioTest::sandboxPath(QStringLiteral("speech.wav"));
        QVERIFY2(AudioTest::speak(QStringLiteral("Hello, this is a test of the microphone."), speech_),
                 "espeak-ng is needed (scripts/setup.sh --test installs it)");
    }

    void cleanupTestCase()
    {
        daemon_.terminate();
        if (!daemon_.waitForFinished(5000))
            daemon_.kill();
    }

    void choosesTheServersDefaultInput()
    {
        MicrophoneSource source;
        const AudioFormat format = source.inputFormat();
        QCOMPARE(source.deviceId(), QStringLiteral("vmic2"));
        QCOMPARE(source.deviceDescription(), QStringLiteral("SecondMic"));
        QVERIFY(format.sampleRate > 0);
        QVERIFY(format.channelCount > 0);
    }

    void capturesBlocksAndTheLevelRisesWithSpeech()
    {
        auto* source = new MicrophoneSource;
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        Meter meter;
        meter.attach(audio);
        TestSupport::LogMark mark;
        audio.start();
        QVERIFY(audio.isRunning());
        QVERIFY(mark.messages().filter(QStringLiteral(" → target=16000.0Hz/1ch, converter=")).size() == 1);

        // Nothing plays: blocks keep coming, and they are silent.
        QVERIFY(TestSupport::waitUntil([&] { return meter.count() >= 20; }, 15000));
        QCOMPARE(meter.loudestSince(0), 0.0f);

        const std::size_t before = meter.reported();
        QVERIFY(play(QStringLiteral("vsink2")));
        QVERIFY(TestSupport::waitUntil([&] { return meter.loudestSince(before) > 0.3f; }, 5000));
        QVERIFY(!mark.messages().filter(QStringLiteral("audio: peak amp ")).isEmpty());
        {
            std::lock_guard lock(meter.mutex);
            QVERIFY(meter.allAt16k);
        }

        audio.stop();
        QVERIFY(!audio.isRunning());
        const long atStop = meter.count();
        QTest::qWait(300);
        QCOMPARE(meter.count(), atStop);
    }

    void followsASwitchOfTheDefaultInput()
    {
        auto* source = new MicrophoneSource;
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        Meter meter;
        meter.attach(audio);
        audio.start();
        QCOMPARE(source->deviceId(), QStringLiteral("vmic2"));

        TestSupport::LogMark mark;
        bool ok = false;
        pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")}, &ok);
        QVERIFY(ok);
        QVERIFY(waitForLog(mark, QStringLiteral("audio: engine restarted after configuration change")));
        QVERIFY(mark.messages().contains(QStringLiteral("audio: configuration changed — rebuilding tap and restarting")));
        QCOMPARE(source->deviceId(), QStringLiteral("vmic"));
        QVERIFY(audio.isRunning());

        // Now the first microphone is the one that hears.
        const std::size_t before = meter.reported();
        QVERIFY(play(QStringLiteral("vsink")));
        QVERIFY(TestSupport::waitUntil([&] { return meter.loudestSince(before) > 0.3f; }, 5000));
        audio.stop();
        pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic2")}, &ok);
    }

    void survivesTheInputBeingRemovedWhileCapturing()
    {
        bool ok = false;
        const QString module = pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"),
                                      QStringLiteral("master=vsink.monitor"), QStringLiteral("source_name=vusb")}, &ok);
        QVERIFY(ok);
        pactl({QStringLiteral("set-default-source"), QStringLiteral("vusb")}, &ok);
        QVERIFY(ok);

        auto* source = new MicrophoneSource;
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        Meter meter;
        meter.attach(audio);
        audio.start();
        QCOMPARE(source->deviceId(), QStringLiteral("vusb"));
        QVERIFY(TestSupport::waitUntil([&] { return meter.count() >= 5; }, 15000));

        TestSupport::LogMark mark;
        pactl({QStringLiteral("unload-module"), module}, &ok);
        QVERIFY(ok);
        // The server falls back to another input and the capture moves there (or, if it cannot,
        // says so and stops): either way a line says what happened, and nothing crashes.
        QVERIFY(TestSupport::waitUntil([&] {
            const QStringList m = mark.messages();
            return m.contains(QStringLiteral("audio: engine restarted after configuration change")) ||
                   !m.filter(QStringLiteral("audio: restart after configuration change FAILED: ")).isEmpty();
        }, 15000));
        QTest::qWait(500);  // let a second report of the same change settle
        if (audio.isRunning()) {
            QVERIFY(source->deviceId() != QStringLiteral("vusb"));
            const long now = meter.count();
            QVERIFY(TestSupport::waitUntil([&] { return meter.count() > now + 5; }, 15000));
        }
        audio.stop();
        pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic2")}, &ok);
    }
};

QTEST_GUILESS_MAIN(MicrophoneSourceTest)
#include "MicrophoneSourceTest.moc"
