// The tolvane program as a user meets it from a shell, run as a black box without a display.
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/FakeSpeechServer.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"
#include "text/CleanupEngine.h"

#include <QJsonArray>
#include <QTest>

using TestSupport::ProgramRun;

namespace {

// With no display at all unless one is given.
ProgramRun tolvane(const QStringList& args, const QByteArray& input = {}, const QString& display = {})
{
    return TestSupport::runTolvane({.arguments = args, .input = input, .set = {{QStringLiteral("DISPLAY"), display}},
                                    .unset = {QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("WAYLAND_DISPLAY")},
                                    .timeoutMs = 120000});
}

const QString said = QStringLiteral("remind me to call the dentist tomorrow morning at nine");

}  // namespace

class ProgramTest : public QObject {
    Q_OBJECT
    QString speechWav_;  // 48 kHz stereo

private Q_SLOTS:
    void initTestCase()
    {
        speechWav_ = AudioTest::sandboxPath(QStringLiteral("speech-48k-stereo.wav"));
        QVERIFY2(!SpeechTest::synthesize(said, speechWav_, 48000, 2).empty(),
                 "festival (text2wave with festvox-us-slt-hts) and sox are needed");
    }

    void answersAndRefusals_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("display");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("says");  // how standard output starts, or the one line on standard error
        auto row = [](const char* name, const QStringList& args, int code, const QString& says, const QString& display = {}) {
            QTest::newRow(name) << args << display << code << says;
        };
        const QString elsewhere = QStringLiteral("; to transcribe a sound file instead, run: tolvane --transcribe FILE\n");
        row("help", {"--help"}, 0, "Usage: tolvane [option]\n");
        row("version", {"--version"}, 0, "Tolvane " TOLVANE_VERSION "\n");
        row("unknown option", {"--frobnicate"}, 2, "tolvane: unknown option --frobnicate (try --help)\n");
        row("no sound file", {"--transcribe", "--partials"}, 2, "tolvane: --transcribe needs a sound file\n");
        row("no language", {"--transcribe", "a.wav", "--locale"}, 2, "tolvane: --locale needs a language such as en-US\n");
        row("no cleanup mode", {"--cleanup"}, 2, "tolvane: --cleanup needs a mode: raw, tidy, bullets or summary\n");
        row("unknown cleanup mode", {"--cleanup", "shout"}, 2,
            "tolvane: unknown cleanup mode “shout”; use raw, tidy, bullets or summary\n");
        row("no display", {}, 1, "tolvane: no graphical session (DISPLAY is not set)" + elsewhere);
        row("display that does not answer", {}, 1, "tolvane: cannot open the display :4093" + elsewhere, ":4093");
        const QString missing = AudioTest::sandboxPath(QStringLiteral("missing.wav"));
        row("missing sound file", {"--transcribe", missing}, 1, QStringLiteral("tolvane: Cannot read the audio file \"%1\"").arg(missing));
        row("not a sound file", {"--transcribe", TestSupport::tolvaneBinary()}, 1, "tolvane: Cannot read the audio file");
        row("damaged Ogg Vorbis header", {"--transcribe", TOLVANE_FUZZ_CORPUS "/AudioFile/damaged-vorbis-header.ogg"}, 1,
            "tolvane: Cannot read the audio file");
        row("a rate of 1 Hz", {"--transcribe", TOLVANE_FUZZ_CORPUS "/AudioFile/one-hertz.au"}, 1,
            QStringLiteral("tolvane: The audio file \"%1\" has no usable audio (1 channels at 1 Hz)\n")
                .arg(TOLVANE_FUZZ_CORPUS "/AudioFile/one-hertz.au"));
        row("unsupported language", {"--transcribe", speechWav_, "--locale", "xx-XX"}, 1,
            "tolvane: Locale xx-XX is not supported by the on-device SpeechTranscriber.\n");
    }
    void answersAndRefusals()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, display);
        QFETCH(int, code);
        QFETCH(QString, says);
        const ProgramRun run = tolvane(args, {}, display);
        QCOMPARE(run.exitCode, code);
        // Answers go to standard output; a refusal is one line on standard error, and nothing else.
        const QString& on = code == 0 ? run.out : run.err;
        QVERIFY2(on.startsWith(says) && (code == 0 || on.count(QLatin1Char('\n')) == 1), qPrintable(on));
        QCOMPARE((code == 0 ? run.err : run.out), QString());
    }

    void transcribesASoundFileAtAnyRate()
    {
        const ProgramRun run = tolvane({QStringLiteral("--transcribe"), speechWav_, QStringLiteral("--partials"),
                                        QStringLiteral("--locale"), QStringLiteral("en-us")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.err, QStringLiteral("tolvane: transcribed by pocketsphinx\n"));
        const QStringList out = run.outLines();
        QVERIFY(out.size() >= 2);
        for (qsizetype i = 0; i + 1 < out.size(); ++i)
            QVERIFY2(out[i].startsWith(QLatin1String("partial: ")), qPrintable(out[i]));
        // The last partial is the committed text, which is the transcript.
        QCOMPARE(out[out.size() - 2], QStringLiteral("partial: ") + out.last());
        const int heard = SpeechTest::wordsHeard(said, out.last());
        QVERIFY2(heard >= 7, qPrintable(out.last()));

        // With the speech server chosen, it answers, and standard error says so.
        FakeSpeechServer server;
        QVERIFY(server.listen());
        FakeSpeechServer::configure(server.openAiEndpoint());
        const ProgramRun served = tolvane({QStringLiteral("--transcribe"), speechWav_});
        Preferences::shared().setSpeechEngine(SpeechEngineKind::pocketsphinx);
        QCOMPARE(served.out, QStringLiteral("segment 1\n"));
        QCOMPARE(served.err, "tolvane: transcribed by the speech server at " + server.openAiEndpoint() + '\n');
    }

    void cleansUpStandardInput()
    {
        FakeLlmServer server;
        QVERIFY(server.listen());
        server.configureCleanup();
        server.chat = [](const QJsonObject&) {
            return FakeLlmServer::answer(QStringLiteral("<<<BEGIN TEXT>>>\n- Café at 9 ☕\n- Bring notes\n<<<END TEXT>>>"));
        };
        const QByteArray spoken("um café at nine, uh, and bring notes\n");
        ProgramRun run = tolvane({QStringLiteral("--cleanup"), QStringLiteral("bullets")}, spoken);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("- Café at 9 ☕\n- Bring notes\n"));
        QVERIFY2(run.err.contains(QStringLiteral("cleanup: mode=bullets in=36 out=27")), qPrintable(run.err));
        // The terminal's final line feed is not part of the text the model sees.
        QCOMPARE(server.chatRequests().value(0).json()[QLatin1String("messages")][1][QLatin1String("content")].toString(),
                 CleanupEngine::prompt(QString::fromUtf8(spoken).chopped(1)));

        // Raw passes standard input through byte for byte, without asking the model.
        const QByteArray typed("  two\r\nlines, no final line feed");
        QCOMPARE(tolvane({QStringLiteral("--cleanup"), QStringLiteral("raw")}, typed).out.toUtf8(), typed);
        QCOMPARE(server.chatRequests().size(), 1);

        // Without a model the text comes back unchanged, and standard error says why.
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        run = tolvane({QStringLiteral("--cleanup"), QStringLiteral("tidy")}, spoken);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.toUtf8(), spoken);
        QVERIFY2(run.err.startsWith(QStringLiteral("tolvane: no language model available, printing the text unchanged: ")),
                 qPrintable(run.err));
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "ProgramTest.moc"
