// The microphone when there is no sound server to ask, or one that never answers: start() throws a
// readable error and returns, and nothing crashes. Each case needs a process of its own, because
// Qt Multimedia connects to the server once per process; the case is chosen by the test's name.

#include "audio/AudioEngineController.h"
#include "audio/MicrophoneSource.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QLocalServer>
#include <QTest>

namespace {

QString startFailure(AudioEngineController& audio)
{
    try {
        audio.start();
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return {};
}

}  // namespace

class NoSoundServerTest : public QObject {
    Q_OBJECT
    QLocalServer mute_;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(AudioTest::forbidSoundServerAutospawn());
        if (qEnvironmentVariableIsSet("TOLVANE_TEST_HUNG_SERVER")) {
            // A socket that accepts connections and never says a word: a server that hangs.
            const QString path = qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + QStringLiteral("/mute-server");
            QVERIFY(mute_.listen(path));
            qputenv("PULSE_SERVER", ("unix:" + path).toUtf8());
        }
    }

    void noServerMeansAClearErrorEveryTime()
    {
        if (qEnvironmentVariableIsSet("TOLVANE_TEST_HUNG_SERVER"))
            QSKIP("this process plays a hung server");
        AudioEngineController audio(std::make_unique<MicrophoneSource>());
        bool rested = false;
        audio.onAmplitude = [&](float) { rested = true; };
        for (int attempt = 0; attempt < 2; ++attempt) {
            QCOMPARE(startFailure(audio), QStringLiteral("No microphone: no sound server (PulseAudio or PipeWire) is running"));
            QVERIFY(!audio.isRunning());
        }
        audio.stop();
        QVERIFY(!rested);  // never ran, so no rest level either
    }

    void hungServerTimesOutInsteadOfFreezing()
    {
        if (!qEnvironmentVariableIsSet("TOLVANE_TEST_HUNG_SERVER"))
            QSKIP("this process has no server at all");
        auto* source = new MicrophoneSource(1000);
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        QCOMPARE(startFailure(audio),
                 QStringLiteral("The sound server did not answer within 1000 ms while looking for the default input"));
        QVERIFY(!audio.isRunning());
        // The request is still stuck in the sound server's client library: later ones fail at once
        // rather than pile up behind it.
        QCOMPARE(startFailure(audio),
                 QStringLiteral("The sound server is not answering (an earlier request to it has not returned)"));
        audio.stop();
        QVERIFY(!audio.isRunning());
    }
};

QTEST_GUILESS_MAIN(NoSoundServerTest)
#include "NoSoundServerTest.moc"
