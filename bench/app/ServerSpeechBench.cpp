// Key release → final text with the speech server engine, against a loopback server that answers
// every segment after a fixed delay, so what is left beyond that delay is the time Tolvane adds.
// The audio is fed in real time, as a microphone delivers it, so segments go out while the
// "speaker" is still talking and the release leaves only the tail.
//
// Run: build/bench/app/bench_server_speech [runs-per-sentence] [server-delay-ms]
// It re-runs itself under tests/support/run-test.sh for its own XDG folders.
#include "BenchSpeech.h"
#include "speech/TranscriberController.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "support/FakeSpeechServer.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>

namespace {

void feedInRealTime(TranscriberController& controller, const std::vector<float>& samples)
{
    const auto input = controller.inputContinuation();
    QElapsedTimer clock;
    clock.start();
    for (size_t at = 0; at < samples.size(); at += 1024) {
        input->yield(AudioBuffer{{16000, 1}, std::vector<float>(samples.begin() + at, samples.begin() + std::min(samples.size(), at + 1024))});
        const qint64 due = static_cast<qint64>((at + 1024) / 16);  // ms of audio delivered so far
        TestSupport::waitUntil([&] { return clock.elapsed() >= due; }, static_cast<int>(std::max<qint64>(0, due - clock.elapsed())));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, false);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));
    Diagnostics::setMirrored(false);
    const QStringList args = app.arguments().mid(1);
    const int runs = args.value(0, QStringLiteral("3")).toInt();
    const int delayMs = args.value(1, QStringLiteral("150")).toInt();

    FakeSpeechServer server;
    if (!server.listen())
        return 1;
    server.transcribe = [delayMs](const FakeSpeechServer::Upload&, int index) {
        return FakeSpeechServer::transcript(QStringLiteral("segment %1").arg(index + 1), delayMs);
    };
    FakeSpeechServer::configure(server.whisperEndpoint());
    TranscriberController controller;
    TestSupport::await(controller.prepare(QStringLiteral("en-US")));

    std::printf("release -> final text, speech server answering after %d ms (%d runs per sentence)\n", delayMs, runs);
    std::printf("%-22s %6s %9s %9s %10s %9s\n", "utterance", "runs", "median", "p95", "requests", "added");
    for (const auto length : {BenchSpeech::Length::sentence, BenchSpeech::Length::long_}) {
        // 0.15 s of quiet after the last word: the key comes up before a pause could end the segment.
        const auto recordings = BenchSpeech::recordings(QStringLiteral(TOLVANE_BENCH_CACHE), 0.3, 0.15, length);
        std::vector<double> times;
        double seconds = 0;
        qsizetype requests = 0;
        for (const auto& recording : recordings) {
            seconds += recording.seconds / static_cast<double>(recordings.size());
            for (int run = 0; run < runs; ++run) {
                const qsizetype before = server.uploads.size();
                TestSupport::await(controller.start());
                feedInRealTime(controller, recording.mono16k);
                QElapsedTimer clock;
                clock.start();
                const QString text = TestSupport::await(controller.finish());
                times.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
                requests += server.uploads.size() - before;
                if (text.isEmpty())
                    std::fprintf(stderr, "no text for \"%s\"\n", qPrintable(recording.text));
            }
        }
        const double median = BenchSpeech::median(times);
        std::printf("%-22s %6zu %7.0fms %7.0fms %10.1f %7.0fms\n",
                    qPrintable(QStringLiteral("~%1 s").arg(seconds, 0, 'f', 1)), times.size(), median,
                    BenchSpeech::percentile(times, 95), double(requests) / double(times.size()), median - delayMs);
    }
    std::printf("added = median minus the server's own delay: what Tolvane spends after the release\n");
    return 0;
}
