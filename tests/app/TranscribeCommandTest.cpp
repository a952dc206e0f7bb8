#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/TranscriberController.h"
#include "storage/Preferences.h"

#include <QTemporaryDir>
#include <QTest>

using TestSupport::await;

namespace {

struct Run {
    int exitCode = -1;
    QStringList out, err;
};

Run tolvane(const QStringList& args)
{
    const TestSupport::ProgramRun run = TestSupport::runTolvane({.arguments = args, .timeoutMs = 120000});
    return {run.exitCode, run.outLines(), run.errLines()};
}

// What the engine hears from the same speech handed to it directly at its own rate.
QString transcribeDirectly(const std::vector<float>& samples)
{
    TranscriberController controller;
    await(controller.prepare(QStringLiteral("en-US")));
    await(controller.start());
    const auto input = controller.inputContinuation();
    for (size_t at = 0; at < samples.size(); at += 341) {
        const size_t end = std::min(samples.size(), at + 341);
        input->yield(AudioBuffer{{16000, 1}, std::vector<float>(samples.begin() + static_cast<std::ptrdiff_t>(at),
                                                                samples.begin() + static_cast<std::ptrdiff_t>(end))});
    }
    return await(controller.finish());
}

const QString kText = QStringLiteral("remind me to call the dentist tomorrow morning at nine");

}  // namespace

class TranscribeCommandTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void fileAtAnyRateGivesTheEngineWords();
    void partialsComeBeforeTheTranscript();
    void failuresAreOneLineAndNonZero_data();
    void failuresAreOneLineAndNonZero();

private:
    QTemporaryDir dir_;
    QString wav48Stereo_;
    std::vector<float> samples16Mono_;
};

void TranscribeCommandTest::initTestCase()
{
    wav48Stereo_ = dir_.filePath(QStringLiteral("speech-48k-stereo.wav"));
    samples16Mono_ = SpeechTest::synthesize(kText, wav48Stereo_, 48000, 2);
    QVERIFY2(!samples16Mono_.empty(), "festival (text2wave with festvox-us-slt-hts) and sox are needed");
}

void TranscribeCommandTest::fileAtAnyRateGivesTheEngineWords()
{
    const Run run = tolvane({QStringLiteral("--transcribe"), wav48Stereo_});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.err, QStringList());
    QCOMPARE(run.out.size(), 1);
    const QStringList viaCommand = SpeechTest::words(run.out.first());
    const QStringList direct = SpeechTest::words(transcribeDirectly(samples16Mono_));
    qInfo("command: %s / direct: %s", qPrintable(viaCommand.join(' ')), qPrintable(direct.join(' ')));
    QVERIFY(direct.size() >= 6);
    QCOMPARE(viaCommand, direct);
}

void TranscribeCommandTest::partialsComeBeforeTheTranscript()
{
    const Run run = tolvane({QStringLiteral("--transcribe"), wav48Stereo_, QStringLiteral("--partials"), QStringLiteral("--locale"),
                             QStringLiteral("en-us")});
    QCOMPARE(run.exitCode, 0);
    QVERIFY(run.out.size() >= 2);
    for (qsizetype i = 0; i + 1 < run.out.size(); ++i)
        QVERIFY2(run.out[i].startsWith(QLatin1String("partial: ")), qPrintable(run.out[i]));
    // The last partial is the committed text, which is the transcript.
    QCOMPARE(QStringLiteral("partial: ") + run.out.last(), run.out[run.out.size() - 2]);
    QVERIFY(!run.out.last().startsWith(QLatin1String("partial:")));
}

void TranscribeCommandTest::failuresAreOneLineAndNonZero_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("message");
    const QString missing = dir_.filePath(QStringLiteral("missing.wav"));
    QTest::newRow("missing file") << QStringList{QStringLiteral("--transcribe"), missing}
                                  << QStringLiteral("tolvane: Cannot read the audio file \"%1\"").arg(missing);
    QTest::newRow("not a sound file") << QStringList{QStringLiteral("--transcribe"), TestSupport::tolvaneBinary()}
                                      << QStringLiteral("tolvane: Cannot read the audio file");
    QTest::newRow("unsupported language")
        << QStringList{QStringLiteral("--transcribe"), wav48Stereo_, QStringLiteral("--locale"), QStringLiteral("xx-XX")}
        << QStringLiteral("tolvane: Locale xx-XX is not supported by the on-device SpeechTranscriber.");
    QTest::newRow("model not installable")
        << QStringList{QStringLiteral("--transcribe"), wav48Stereo_, QStringLiteral("--locale"), QStringLiteral("de-DE")}
        << QStringLiteral("tolvane: Could not download the speech model for de-DE: ");
}

void TranscribeCommandTest::failuresAreOneLineAndNonZero()
{
    QFETCH(QStringList, args);
    QFETCH(QString, message);
    // de-DE is catalogued but its server is not there.
    Preferences::shared().setValue(Settings::speechModelCatalog,
                                   QStringLiteral(R"([{"locale":"de-DE","url":"http://127.0.0.1:9/de.tar","sha256":"%1"}])")
                                       .arg(QString(64, QLatin1Char('0'))));
    const Run run = tolvane(args);
    QVERIFY(run.exitCode > 0);
    QCOMPARE(run.out, QStringList());
    QCOMPARE(run.err.size(), 1);
    QVERIFY2(run.err.first().startsWith(message), qPrintable(run.err.first()));
}

QTEST_GUILESS_MAIN(TranscribeCommandTest)
#include "TranscribeCommandTest.moc"
