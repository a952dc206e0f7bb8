// Dictation through a local transcription server: where segments are cut, what goes over the wire
// in both formats, answers joined in order while the key is held, the fall back to pocketsphinx
// when the server fails, and words at segment boundaries.

#include "support/FakeSpeechServer.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/AnalyzerInputStream.h"
#include "speech/PocketsphinxEngine.h"
#include "speech/SpeechResultStream.h"
#include "speech/SpeechSegmenter.h"
#include "speech/TranscriberController.h"
#include "storage/Preferences.h"

#include <QRegularExpression>
#include <QTest>

#include <algorithm>

#include <sndfile.h>

#include <cmath>
#include <mutex>

using namespace SpeechTest;
using TestSupport::await;
using Segments = std::vector<SpeechSegmenter::Segment>;
using Spans = QList<QPair<int, bool>>;  // milliseconds, loud or quiet

namespace {

const QString kThird = QStringLiteral("remind me to water the plants and pick up the dry cleaning tomorrow");
const QString kFourth = QStringLiteral("the train to the city leaves at seven fifteen from platform four");

// A quiet room: the microphone's hiss only.
void quiet(std::vector<float>& audio, int ms)
{
    static std::uint32_t noise = 1;
    for (int i = 0; i < ms * 16; ++i)
        audio.push_back(AudioTest::hiss(noise) / 32768.0f);
}

// Sentences without their own silences, after a short quiet lead, `gapMs` of quiet between them
// and a last pause too short to end a segment.
std::vector<float> dictation(const QList<const std::vector<float>*>& sentences, int gapMs)
{
    std::vector<float> audio;
    quiet(audio, 300);
    for (const auto* sentence : sentences) {
        const std::vector<float> spoken = withoutSilence(*sentence);
        audio.insert(audio.end(), spoken.begin(), spoken.end());
        quiet(audio, sentence == sentences.last() ? 150 : gapMs);
    }
    return audio;
}

void feed(TranscriberController& controller, const std::vector<float>& samples)
{
    AudioTest::feed(*controller.inputContinuation(), samples, 1024);
}

// Words missed plus words added, per hundred words said.
double errorRate(const QString& said, const QString& heard)
{
    const QStringList expected = words(said), actual = words(heard);
    const int kept = wordsInOrder(expected, actual);
    return 100.0 * double(expected.size() - kept + actual.size() - kept) / double(expected.size());
}

// One whole session of an engine that needs no event loop, on this thread: the final results joined.
QString recognise(SpeechEngine& engine, const std::vector<float>& samples)
{
    auto results = std::make_shared<SpeechResultStream>();
    auto input = std::make_shared<AnalyzerInputStream>();
    const std::unique_ptr<SpeechAnalyzer> analyzer = engine.makeAnalyzer(results);
    analyzer->prepareToAnalyze({16000, 1});
    analyzer->start(input);
    input->yield(AudioBuffer{{16000, 1}, samples});
    input->finish();
    analyzer->finalizeAndFinishThroughEndOfInput();
    QStringList finals;
    for (auto next = results->next(); next.event == SpeechResultStream::Event::result; next = results->next()) {
        if (next.result.isFinal)
            finals << next.result.text;
    }
    return finals.join(QLatin1Char(' '));
}

}  // namespace

class SpeechServerTest : public QObject {
    Q_OBJECT
    std::vector<float> first_, second_, third_, fourth_;
    std::unique_ptr<FakeSpeechServer> server_;
    std::unique_ptr<TranscriberController> controller_;
    std::mutex mutex_;
    QStringList committed_;  // what onPartial reported, from the results thread

    QStringList committed()
    {
        std::lock_guard lock(mutex_);
        return committed_;
    }

private Q_SLOTS:
    void initTestCase()
    {
        first_ = synthesize(kFirst);
        second_ = synthesize(kSecond);
        third_ = synthesize(kThird);
        fourth_ = synthesize(kFourth);
        QVERIFY2(!first_.empty() && !fourth_.empty(), "festival (text2wave with festvox-us-slt-hts) and sox are needed");
        QVERIFY2(!installedModel().isEmpty(), "pocketsphinx-en-us is needed");
    }

    void init()
    {
        server_ = std::make_unique<FakeSpeechServer>();
        QVERIFY(server_->listen());
        controller_ = std::make_unique<TranscriberController>();
        controller_->onPartial = [this](QString committed, QString) {
            std::lock_guard lock(mutex_);
            committed_ << committed;
        };
        committed_.clear();
        Preferences::shared().remove(QString::fromLatin1(Settings::speechRequestTimeoutMs.key));
        await(controller_->prepare(QStringLiteral("en-US")));
    }

    void segmentsEndInPausesAndNeverPastTheLongest_data()
    {
        QTest::addColumn<Spans>("signal");
        QTest::addColumn<Segments>("expected");  // in milliseconds
        QTest::newRow("phrases and pauses") << Spans{{500, false}, {2000, true}, {600, false}, {2000, true}, {600, false}, {1000, true}}
                                            << Segments{{0, 2900, 0}, {2500, 5500, 2700}, {5100, 6700, 5300}};
        QTest::newRow("a minute without a pause") << Spans{{60000, true}}
                                                  << Segments{{0, 25000, 0}, {24600, 49600, 24800}, {49200, 60000, 49400}};
        QTest::newRow("nothing but the pause after the last cut") << Spans{{2000, true}, {2000, false}} << Segments{{0, 2400, 0}};
        QTest::newRow("a short word stays with what follows")
            << Spans{{500, true}, {500, false}, {2000, true}, {600, false}} << Segments{{0, 3400, 0}};
    }
    void segmentsEndInPausesAndNeverPastTheLongest()
    {
        QFETCH(Spans, signal);
        QFETCH(Segments, expected);
        std::vector<std::int16_t> samples;
        for (const auto& [ms, loud] : signal) {
            for (int i = 0; i < ms * 16; ++i)
                samples.push_back(loud ? static_cast<std::int16_t>(10000 * std::sin(i * 0.2)) : 0);
        }
        SpeechSegmenter segmenter({});
        Segments got;
        for (size_t at = 0; at < samples.size(); at += 1024) {
            for (const auto& s : segmenter.feed(samples.data() + at, std::min<size_t>(1024, samples.size() - at)))
                got.push_back(s);
        }
        for (const auto& s : segmenter.finish())
            got.push_back(s);
        QStringList text;
        for (auto& s : got) {
            s = {s.begin / 16, s.end / 16, s.cut / 16};
            text << QStringLiteral("%1-%2 cut %3").arg(s.begin).arg(s.end).arg(s.cut);
        }
        QVERIFY2(got == expected, qPrintable(text.join(", ")));
    }

    void bothWireFormatsCarryEveryField_data()
    {
        QTest::addColumn<bool>("whisper");
        QTest::addColumn<QString>("model");
        QTest::addColumn<QByteArray>("probe");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QMap<QByteArray, QByteArray>>("fields");
        const QMap<QByteArray, QByteArray> common{{"temperature", "0"}, {"response_format", "json"}, {"language", "en"}};
        auto withModel = common;
        withModel.insert("model", "whisper-large-v3");
        QTest::newRow("whisper.cpp, which takes no model") << true << "whisper-large-v3" << QByteArray("/") << QByteArray("/inference") << common;
        QTest::newRow("OpenAI-compatible with a model") << false << "whisper-large-v3" << QByteArray("/v1/models")
                                                        << QByteArray("/v1/audio/transcriptions") << withModel;
        QTest::newRow("OpenAI-compatible, the server's model") << false << QString() << QByteArray("/v1/models")
                                                               << QByteArray("/v1/audio/transcriptions") << common;
    }
    void bothWireFormatsCarryEveryField()
    {
        QFETCH(bool, whisper);
        QFETCH(QString, model);
        QFETCH(QByteArray, probe);
        QFETCH(QByteArray, path);
        using Fields = QMap<QByteArray, QByteArray>;
        QFETCH(Fields, fields);
        const QString endpoint = whisper ? server_->whisperEndpoint() + '/' : server_->openAiEndpoint();
        FakeSpeechServer::configure(endpoint, model);
        const std::vector<float> audio = dictation({&first_, &second_}, 700);

        await(controller_->start());
        feed(*controller_, audio);
        QCOMPARE(await(controller_->finish()), QStringLiteral("segment 1 segment 2"));
        QCOMPARE(controller_->answeredBy(), "the speech server at " + endpoint.chopped(whisper ? 1 : 0));
        // The server is probed once at most: the probe goes out beside the uploads and may reach it
        // in any order, or not before the dictation has ended.
        const auto probes = std::count_if(server_->requests.begin(), server_->requests.end(), [&](const auto& r) {
            return r.method == QByteArray("GET") && r.path == probe;
        });
        QVERIFY2(probes <= 1, qPrintable(QString::number(probes)));

        // Every upload: the fields, and a 16 kHz mono 16-bit WAV holding exactly the audio of its segment.
        QCOMPARE(server_->uploads.size(), 2);
        long at = 0;
        for (int segment = 0; segment < 2; ++segment) {
            const FakeSpeechServer::Upload& upload = server_->uploads.at(server_->arrivalOf(segment));
            QCOMPARE(upload.path, path);
            QCOMPARE(upload.fields, fields);
            QCOMPARE(upload.fileName, QByteArray("segment-") + QByteArray::number(upload.segment) + ".wav");
            QCOMPARE(upload.fileType, QByteArray("audio/wav"));
            QCOMPARE(upload.sampleRate, 16000);
            QCOMPARE(upload.channels, 1);
            QCOMPARE(upload.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
            for (size_t i = 0; i < upload.samples.size(); i += 97)
                QVERIFY(std::abs(upload.samples[i] - audio[static_cast<size_t>(at) + i]) < 1e-3f);
            at += static_cast<long>(upload.samples.size()) - 2 * 3200;  // the next starts 0.4 s before this one ends
        }
        QCOMPARE(at + 2 * 3200, static_cast<long>(audio.size()));
    }

    void segmentsGoWhileTheKeyIsHeldAndJoinInOrder()
    {
        FakeSpeechServer::configure(server_->openAiEndpoint());
        server_->transcribe = [](const FakeSpeechServer::Upload&, int index) {
            return FakeSpeechServer::transcript(QStringList{"pick up milk", "", "the train leaves"}.value(index), LoopbackHttpServer::held);
        };
        await(controller_->start());
        feed(*controller_, dictation({&first_, &second_, &third_}, 700));
        QVERIFY(TestSupport::waitUntil([&] { return server_->uploads.size() == 2; }));

        // The key comes up: only the unfinished segment is left to send.
        QCoro::Task<QString> finishing = controller_->finish();
        QVERIFY(TestSupport::waitUntil([&] { return server_->uploads.size() == 3; }));
        QTest::qWait(300);
        QCOMPARE(server_->uploads.size(), 3);

        // Answers out of order: nothing is committed until the first segment's answer is in.
        server_->releaseHeld(server_->arrivalOf(2));
        server_->releaseHeld(server_->arrivalOf(1));
        QTest::qWait(200);
        QCOMPARE(committed(), QStringList());
        server_->releaseHeld(server_->arrivalOf(0));
        QCOMPARE(await(std::move(finishing)), QStringLiteral("pick up milk the train leaves"));
        QCOMPARE(committed(), (QStringList{"pick up milk", "pick up milk the train leaves"}));
    }

    void aFailingServerHandsTheDictationToPocketsphinx_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<QString>("logged");  // after "transcriber: speech server "; ENDPOINT stands for it
        QTest::newRow("error status") << "500" << "error — segment 1 of ENDPOINT: the server answered HTTP 500: model exploded";
        QTest::newRow("malformed answer") << "malformed" << "error — segment 1 of ENDPOINT: the answer holds no transcript";
        QTest::newRow("no answer") << "hang" << "timed out — segment 1 got no answer from ENDPOINT within 1 s";
        QTest::newRow("probe unanswered") << "silent" << "unavailable — ENDPOINT did not answer within 2 seconds";
        QTest::newRow("not on this computer")
            << "remote" << "refused — ENDPOINT is not on this computer, and sending audio to other computers is not allowed";
        QTest::newRow("second segment fails") << "second" << "error — segment 2 of ENDPOINT: the server answered HTTP 503";
    }
    void aFailingServerHandsTheDictationToPocketsphinx()
    {
        QFETCH(QString, how);
        QFETCH(QString, logged);
        const QString endpoint = how == "remote" ? QStringLiteral("http://192.0.2.7:8080/inference") : server_->whisperEndpoint();
        FakeSpeechServer::configure(endpoint);
        if (how == "hang")
            Preferences::shared().setValue(Settings::speechRequestTimeoutMs, 1000);
        server_->answerProbe = how != "silent";
        server_->transcribe = [how](const FakeSpeechServer::Upload&, int index) {
            // Only the first segment fails, so the line that says which one does not depend on
            // which upload the server saw first.
            if ((how == "500" || how == "malformed") && index > 0)
                return FakeSpeechServer::Response{200, {}, LoopbackHttpServer::held};
            if (how == "500")
                return LoopbackHttpServer::error(500, QStringLiteral("model exploded"));
            if (how == "malformed")
                return FakeSpeechServer::Response{200, "<html>busy</html>", 0};
            if (how == "second" && index == 0)
                return FakeSpeechServer::transcript(QStringLiteral("first sentence"));
            if (how == "second")  // after the first segment's answer, which goes out at the same moment
                return FakeSpeechServer::Response{503, {}, 1000};
            return FakeSpeechServer::Response{200, {}, LoopbackHttpServer::held};
        };
        TestSupport::LogMark mark;
        await(controller_->start());
        feed(*controller_, dictation({&first_, &second_}, 700));
        const QString text = await(controller_->finish());

        // One line says what went wrong, one that pocketsphinx took over; no word is lost.
        const QStringList lines = mark.messages().filter(QRegularExpression("^transcriber: (speech server|falling back)"));
        QCOMPARE(lines, (QStringList{"transcriber: speech server " + QString(logged).replace("ENDPOINT", endpoint),
                                     "transcriber: falling back to pocketsphinx for this dictation"}));
        if (how == "second") {
            QVERIFY2(text.startsWith("first sentence ") && wordsHeard(kSecond, text) >= 4,
                     qPrintable(text));
            QCOMPARE(controller_->answeredBy(), "the speech server at " + endpoint + ", then pocketsphinx");
        } else {
            QVERIFY2(wordsHeard(kFirst + ' ' + kSecond, text) >= 11, qPrintable(text));
            QCOMPARE(controller_->answeredBy(), QStringLiteral("pocketsphinx"));
        }
        if (how == "remote")
            QVERIFY(server_->requests.isEmpty());
    }

    void wordsAtSegmentBoundariesAreKept()
    {
        // A server that hears with pocketsphinx: the same recognizer on whole files and on segments.
        // A decoder of its own for each file, since the decoder's sense of loudness carries over from
        // one file to the next, and uploads may arrive in any order.
        const auto model = PocketsphinxEngine::Model::inFolder(installedModel(), QStringLiteral("en-US"));
        const auto recogniseAlone = [&model](const std::vector<float>& samples) {
            return recognise(*PocketsphinxEngine::load(*model), samples);
        };
        server_->transcribe = [&recogniseAlone](const FakeSpeechServer::Upload& upload, int) {
            return FakeSpeechServer::transcript(recogniseAlone(upload.samples));
        };
        FakeSpeechServer::configure(server_->whisperEndpoint());
        const std::vector<float> audio = dictation({&first_, &second_, &third_, &fourth_}, 450);
        const QString said = QStringList{kFirst, kSecond, kThird, kFourth}.join(' ');

        await(controller_->start());
        feed(*controller_, audio);
        const QString segmented = await(controller_->finish());
        const QString whole = recogniseAlone(audio);
        QVERIFY2(server_->uploads.size() >= 4, qPrintable(QString::number(server_->uploads.size())));
        QVERIFY2(errorRate(said, segmented) <= errorRate(said, whole) + 1.0,
                 qPrintable(QStringLiteral("segmented: %1\nwhole: %2").arg(segmented, whole)));
    }
};

QTEST_GUILESS_MAIN(SpeechServerTest)
#include "SpeechServerTest.moc"
