// The microphone against a PulseAudio daemon of the test's own: null sinks whose monitors are
// remapped into inputs, so a file played into a sink is heard by "its" microphone in real time.
// With TOLVANE_TEST_SOUND_SERVER=no there is no server at all, with =hung one that never answers.

#include "audio/AudioEngineController.h"
#include "audio/MicrophoneSource.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QLocalServer>
#include <QProcess>
#include <QTest>

#include <atomic>

namespace {

// An input remapped from a sink's monitor: its module index, or nothing.
QString remappedInput(const QString& sink, const QString& name)
{
    return AudioTest::pactl({"load-module", "module-remap-source", "master=" + sink + ".monitor", "source_name=" + name}).value(0).trimmed();
}

bool setDefault(const QString& source) { return !AudioTest::pactl({"set-default-source", source}).isEmpty(); }

// Capture was rebuilt after the input changed, or a line says why it could not be.
bool restarted(const TestSupport::LogMark& mark)
{
    static const QRegularExpression line("^audio: (restart|engine restarted)");
    return TestSupport::waitUntil([&] { return !mark.messages().filter(line).isEmpty(); }, 15000);
}

}  // namespace

class MicrophoneSourceTest : public QObject {
    Q_OBJECT
    const QString server_ = qEnvironmentVariable("TOLVANE_TEST_SOUND_SERVER");
    AudioTest::SoundServer daemon_;
    QLocalServer mute_;  // accepts connections and never says a word: a server that hangs
    QString tone_;
    std::atomic<long> blocks_{0};
    std::atomic<long> frames_{0};
    std::atomic<float> loudest_{0};  // since the test last cleared it
    MicrophoneSource* source_ = new MicrophoneSource(server_ == QLatin1String("hung") ? 1000 : 5000);
    AudioEngineController audio_{std::unique_ptr<CaptureSource>(source_)};  // stopped before what it writes goes

    // Plays a second of tone into a sink, in real time like a person talking, until the capture hears it.
    bool heardThrough(const QString& sink)
    {
        loudest_ = 0;
        return QProcess::execute("paplay", {"--device=" + sink, tone_}) == 0 && TestSupport::waitUntil([&] { return loudest_ > 0.3f; }, 5000);
    }
    QString startFailure()
    {
        try {
            audio_.start();
        } catch (const CollaboratorError& e) {
            return e.localizedDescription();
        }
        return {};
    }

private Q_SLOTS:
    void initTestCase()
    {
        audio_.onAmplitude = [this](float level) { loudest_ = std::max(loudest_.load(), level); };
        audio_.onBuffer = [this](const AudioBuffer& b) {
            ++blocks_;
            frames_ += b.frameCount();
        };
        if (!server_.isEmpty()) {
            QVERIFY(AudioTest::forbidSoundServerAutospawn());
            if (server_ == QLatin1String("hung") && mute_.listen(qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + "/mute-server"))
                qputenv("PULSE_SERVER", ("unix:" + mute_.fullServerName()).toUtf8());
            return;
        }
        const QString problem = daemon_.start({"module-null-sink sink_name=vsink", "module-null-sink sink_name=vsink2"});
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        tone_ = AudioTest::sandboxPath(QStringLiteral("tone.wav"));
        QVERIFY(AudioTest::writeWav(tone_, AudioTest::sine({16000, 1}, 16000, 440, 0.5f)));
    }

    void withoutAnAnsweringServerStartFailsClearlyEveryTime()
    {
        if (server_.isEmpty())
            QSKIP("this process has a sound server");
        // A server that never answers is no server: each request gives up within its time.
        loudest_ = -1;
        for (int attempt = 0; attempt < 2; ++attempt)
            QCOMPARE(startFailure(), QStringLiteral("No microphone: no sound server (PulseAudio or PipeWire) answers"));
        QVERIFY(!audio_.isRunning());
        audio_.stop();
        QCOMPARE(loudest_.load(), -1.0f);  // never ran, so no rest level either
    }

    void followsTheDefaultInputAndSurvivesItsRemoval()
    {
        if (!server_.isEmpty())
            QSKIP("this process has no sound server that answers");
        const QString usb = remappedInput("vsink", "vusb");
        QVERIFY(!usb.isEmpty() && !remappedInput("vsink2", "vmic").isEmpty());
        QVERIFY(setDefault("vmic"));  // the second input listed: Qt alone would pick the first
        QCOMPARE(startFailure(), QString());
        QCOMPARE(source_->deviceId(), QStringLiteral("vmic"));
        // Nothing plays: blocks keep coming, and they are silent.
        QVERIFY(TestSupport::waitUntil([&] { return blocks_ >= 20; }, 15000));
        QCOMPARE(loudest_.load(), 0.0f);
        QVERIFY(heardThrough("vsink2"));

        TestSupport::LogMark switched;
        QVERIFY(setDefault("vusb"));
        QVERIFY(restarted(switched));
        QCOMPARE(source_->deviceId(), QStringLiteral("vusb"));
        QVERIFY(heardThrough("vsink"));

        // Unplugged while capturing: capture moves to the server's fallback input or says why it cannot.
        TestSupport::LogMark unplugged;
        QVERIFY(!AudioTest::pactl({"unload-module", usb}).isEmpty());
        QVERIFY(restarted(unplugged));
        audio_.stop();
        const long atStop = blocks_;
        QTest::qWait(300);
        QCOMPARE(blocks_.load(), atStop);
    }

    void handsOverEverythingHeardBeforeItStops()
    {
        if (!server_.isEmpty())
            QSKIP("this process has no sound server that answers");
        // A pipe source hears exactly what is written into it: here no whole number of blocks. The
        // last, short block is what someone said as they let go of the key.
        const QString fifo = AudioTest::sandboxPath(QStringLiteral("tail.fifo"));
        QVERIFY(!AudioTest::pactl({"load-module", "module-pipe-source", "source_name=vpipe", "file=" + fifo, "format=float32le",
                                   "rate=48000", "channels=1"})
                     .isEmpty());
        QVERIFY(setDefault("vpipe"));
        audio_.setTargetFormat(AudioFormat{48000, 1});  // nothing resampled: frames in are frames out
        QCOMPARE(startFailure(), QString());
        frames_ = 0;
        const AudioBuffer said = AudioTest::sine({48000, 1}, 48000 + 700, 440, 0.5f);
        QFile pipe(fifo);
        QVERIFY(pipe.open(QIODevice::WriteOnly));
        QCOMPARE(pipe.write(reinterpret_cast<const char*>(said.samples.data()), qint64(said.samples.size() * sizeof(float))),
                 qint64(said.samples.size() * sizeof(float)));
        pipe.close();
        QVERIFY(TestSupport::waitUntil([&] { return frames_ >= 48000; }, 10000));
        QTest::qWait(200);  // what the server still passes on arrives
        audio_.stop();
        QCOMPARE(frames_.load(), long(said.frameCount()));
        audio_.setTargetFormat(std::nullopt);
    }
};

QTEST_GUILESS_MAIN(MicrophoneSourceTest)
#include "MicrophoneSourceTest.moc"
