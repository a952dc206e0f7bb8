// The microphone path against a real PulseAudio daemon that the test starts in its own sandbox: two
// null sinks whose monitors are remapped into inputs, so that playing a file into a sink is heard
// by "its" microphone in real time.

#include "audio/AudioEngineController.h"
#include "audio/MicrophoneSource.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QTest>

#include <atomic>

namespace {

bool pactl(const QStringList& args) { return !AudioTest::pactl(args).isEmpty(); }

// A microphone capture started on the server's default input; counts blocks and keeps the loudest
// level since the test last cleared it (written on the audio thread only).
struct Capture {
    MicrophoneSource* source = new MicrophoneSource;
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    std::atomic<long> blocks{0};
    std::atomic<float> loudest{0};
    std::atomic<bool> allAt16k{true};

    Capture()
    {
        audio.onAmplitude = [this](float level) { loudest = std::max(loudest.load(), level); };
        audio.onBuffer = [this](AudioBuffer buffer) {
            ++blocks;
            allAt16k = allAt16k && buffer.format == AudioFormat{16000, 1};
        };
        audio.start();
    }
    ~Capture() { audio.stop(); }  // before the members its callbacks use go away
};

}  // namespace

class MicrophoneSourceTest : public QObject {
    Q_OBJECT
    AudioTest::SoundServer server_;
    QString tone_;

    // Plays a second of tone into a sink (real-time, like a person talking) and waits until the capture
    // hears it.
    bool heardThrough(const QString& sink, Capture& capture)
    {
        capture.loudest = 0;
        QProcess paplay;
        paplay.start(QStringLiteral("paplay"), {QStringLiteral("--device=") + sink, tone_});
        while (!paplay.waitForFinished(10))
            QCoreApplication::processEvents();
        return paplay.exitCode() == 0 && TestSupport::waitUntil([&] { return capture.loudest > 0.3f; }, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString problem =
            server_.start({QStringLiteral("module-null-sink sink_name=vsink"), QStringLiteral("module-null-sink sink_name=vsink2")});
        QVERIFY2(problem.isEmpty(), qPrintable(problem));
        QVERIFY(pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"), QStringLiteral("master=vsink.monitor"),
                       QStringLiteral("source_name=vmic")}));
        QVERIFY(pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"), QStringLiteral("master=vsink2.monitor"),
                       QStringLiteral("source_name=vmic2")}));
        tone_ = AudioTest::sandboxPath(QStringLiteral("tone.wav"));
        QVERIFY(AudioTest::writeWav(tone_, AudioTest::sine({16000, 1}, 16000, 440, 0.5f)));
    }

    void init()
    {
        // The second one listed is the default: Qt alone would pick the first.
        QVERIFY(pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic2")}));
    }

    void hearsTheDefaultInputAndFollowsASwitch()
    {
        TestSupport::LogMark mark;
        Capture capture;
        QVERIFY(capture.audio.isRunning());
        QCOMPARE(capture.source->deviceId(), QStringLiteral("vmic2"));
        // Nothing plays: blocks keep coming, and they are silent.
        QVERIFY(TestSupport::waitUntil([&] { return capture.blocks >= 20; }, 15000));
        QCOMPARE(capture.loudest.load(), 0.0f);
        QVERIFY(heardThrough(QStringLiteral("vsink2"), capture));

        QVERIFY(pactl({QStringLiteral("set-default-source"), QStringLiteral("vmic")}));
        QVERIFY(TestSupport::waitUntil(
            [&] { return mark.messages().contains(QStringLiteral("audio: engine restarted after configuration change")); }, 15000));
        QCOMPARE(capture.source->deviceId(), QStringLiteral("vmic"));
        QVERIFY(heardThrough(QStringLiteral("vsink"), capture));

        capture.audio.stop();
        const long atStop = capture.blocks;
        QTest::qWait(300);
        QCOMPARE(capture.blocks.load(), atStop);
        QVERIFY(capture.allAt16k);
    }

    void survivesTheInputBeingRemovedWhileCapturing()
    {
        const QStringList module = AudioTest::pactl({QStringLiteral("load-module"), QStringLiteral("module-remap-source"),
                                                     QStringLiteral("master=vsink.monitor"), QStringLiteral("source_name=vusb")});
        QVERIFY(!module.isEmpty());
        QVERIFY(pactl({QStringLiteral("set-default-source"), QStringLiteral("vusb")}));
        Capture capture;
        QCOMPARE(capture.source->deviceId(), QStringLiteral("vusb"));
        QVERIFY(TestSupport::waitUntil([&] { return capture.blocks >= 5; }, 15000));

        TestSupport::LogMark mark;
        QVERIFY(pactl({QStringLiteral("unload-module"), module.first().trimmed()}));
        // The server falls back to another input and the capture moves there (or, if it cannot,
        // says so and stops): either way a line says what happened, and nothing crashes.
        QVERIFY(TestSupport::waitUntil([&] {
            const QStringList m = mark.messages();
            return m.contains(QStringLiteral("audio: engine restarted after configuration change")) ||
                   !m.filter(QStringLiteral("audio: restart after configuration change FAILED: ")).isEmpty();
        }, 15000));
        QTest::qWait(500);  // let a second report of the same change settle
        if (capture.audio.isRunning()) {
            QVERIFY(capture.source->deviceId() != QStringLiteral("vusb"));
            const long now = capture.blocks;
            QVERIFY(TestSupport::waitUntil([&] { return capture.blocks > now + 5; }, 15000));
        }
    }
};

QTEST_GUILESS_MAIN(MicrophoneSourceTest)
#include "MicrophoneSourceTest.moc"
