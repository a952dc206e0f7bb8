// The speech path as a dictation runs it, in simulated real time: each sentence is played by a
// file source paced like a microphone (48 kHz blocks of 1024 frames), converted, and transcribed
// by TranscriberController; finish() is called when the last block has been delivered. The same
// sentences then go through the bare pocketsphinx decoder (same model and settings, 16 kHz blocks
// of the same duration, same pacing) in a child process, so each side's memory is its own.
//
// Reported for both: real-time factor (process CPU time / audio time), time from the last audio
// block to the final text (median, 95th percentile), peak resident memory, word errors; for the
// decoder as it was (the flat second pass, no lead-in), with the lead-in, and as it is now (the
// lattice's best path instead of the flat pass).
//
//   bench_transcriber [cache-folder]   (default: bench-speech in the build folder)
// It re-runs itself under tests/support/run-test.sh for settings folders of its own.

#include "BenchSpeech.h"

#include "audio/AudioEngineController.h"
#include "audio/FileSource.h"
#include "speech/PocketsphinxEngine.h"
#include "speech/TranscriberController.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>


#include <qcoro/qcorosignal.h>
#include <qcoro/qcorotask.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Result {
    double rtf = 0;
    double endP50 = 0;
    double endP95 = 0;
    double peakMB = 0;
    double werPercent = 0;

    QJsonObject toJson() const
    {
        return {{QStringLiteral("rtf"), rtf}, {QStringLiteral("endP50"), endP50}, {QStringLiteral("endP95"), endP95},
                {QStringLiteral("peakMB"), peakMB}, {QStringLiteral("wer"), werPercent}};
    }
    static Result fromJson(const QJsonObject& o)
    {
        return {o.value(QStringLiteral("rtf")).toDouble(), o.value(QStringLiteral("endP50")).toDouble(),
                o.value(QStringLiteral("endP95")).toDouble(), o.value(QStringLiteral("peakMB")).toDouble(),
                o.value(QStringLiteral("wer")).toDouble()};
    }
};

struct Tally {
    std::vector<double> ends;
    int errors = 0;
    int words = 0;
    double seconds = 0;

    void add(const BenchSpeech::Recording& r, const QString& heard, double endMs)
    {
        const QStringList reference = BenchSpeech::words(r.text);
        errors += BenchSpeech::wordErrors(reference, BenchSpeech::words(heard));
        words += static_cast<int>(reference.size());
        seconds += r.seconds;
        ends.push_back(endMs);
    }
    Result result(double cpu) const
    {
        return {cpu / seconds, BenchSpeech::median(ends), BenchSpeech::percentile(ends, 95), BenchSpeech::peakResidentMB(),
                100.0 * errors / words};
    }
};

QCoro::Task<Result> realPath(std::vector<BenchSpeech::Recording> recordings)
{
    TranscriberController transcriber;
    QCoro::Task<void> preparing = transcriber.prepare(QStringLiteral("en-US"));
    co_await preparing;
    std::atomic<Clock::rep> lastBlock{0};
    Tally tally;
    const double cpu0 = BenchSpeech::cpuSeconds();
    for (const auto& r : recordings) {
        auto* source = new FileSource(r.wavPath, FileSource::Pacing::realTime);
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        audio.setTargetFormat(transcriber.analyzerFormat());
        audio.onBuffer = [&transcriber, &lastBlock](AudioBuffer buffer) {
            if (const auto input = transcriber.inputContinuation())
                input->yield(std::move(buffer));
            lastBlock.store(Clock::now().time_since_epoch().count());
        };
        QCoro::Task<void> starting = transcriber.start();
        co_await starting;
        audio.start();
        co_await qCoro(source, &FileSource::finished);
        audio.stop();
        QCoro::Task<QString> finishing = transcriber.finish();
        const QString heard = co_await finishing;
        const Clock::time_point last{Clock::duration(lastBlock.load())};
        tally.add(r, heard, std::chrono::duration<double, std::milli>(Clock::now() - last).count());
    }
    co_return tally.result(BenchSpeech::cpuSeconds() - cpu0);
}

Result bareEngine(const std::vector<BenchSpeech::Recording>& recordings, const PocketsphinxEngine::Settings& settings)
{
    BenchSpeech::BareDecoder decoder{settings};
    // 341 samples at 16 kHz last as long as a 1024-frame block at 48 kHz.
    constexpr size_t block = 341;
    const auto blockDuration = std::chrono::duration<double>(1024.0 / 48000.0);
    Tally tally;
    const double cpu0 = BenchSpeech::cpuSeconds();
    for (const auto& r : recordings) {
        const std::vector<std::int16_t> pcm = BenchSpeech::toPcm(r.mono16k);
        decoder.begin();
        const auto start = Clock::now();
        Clock::time_point arrived;
        size_t n = 0;
        for (size_t at = 0; at < pcm.size(); at += block, ++n) {
            arrived = start + std::chrono::duration_cast<Clock::duration>(blockDuration * static_cast<double>(n + 1));
            std::this_thread::sleep_until(arrived);
            decoder.feed(pcm.data() + at, std::min(block, pcm.size() - at), true);  // with the engine's partials
        }
        const QString heard = decoder.end();
        tally.add(r, heard, std::chrono::duration<double, std::milli>(Clock::now() - arrived).count());
    }
    return tally.result(BenchSpeech::cpuSeconds() - cpu0);
}

void printRow(const char* name, const Result& r)
{
    std::printf("%s %6.3f %9.1fms %9.1fms %8.0fMB %7.1f\n", name, r.rtf, r.endP50, r.endP95, r.peakMB, r.werPercent);
}

// A decoder tuning, given to Tolvane through its settings and to the bare decoder as arguments.
struct Tuning {
    const char* name;
    int leadInMs;
    const char* pass;  // "flat" or "lattice"
};

Result runOurs(const std::vector<BenchSpeech::Recording>& recordings)
{
    Result ours;
    bool done = false;
    auto runner = [](std::vector<BenchSpeech::Recording> r, Result& out, bool& flag) -> QCoro::Task<> {
        QCoro::Task<Result> task = realPath(std::move(r));
        out = co_await task;
        flag = true;
        QCoreApplication::exit(0);
    };
    QCoro::Task<> running = runner(recordings, ours, done);
    if (!done)
        QCoreApplication::exec();
    return ours;
}

Result runBare(const QString& cache, const Tuning& tuning)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--bare"), QString::number(tuning.leadInMs),
                                                          QLatin1String(tuning.pass), cache});
    if (!child.waitForFinished(600000) || child.exitCode() != 0)
        qFatal("the bare-engine run failed");
    return Result::fromJson(QJsonDocument::fromJson(child.readAllStandardOutput().trimmed()).object());
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, false);
    QCoreApplication app(argc, argv);
    Diagnostics::setMirrored(false);
    QStringList args = app.arguments().mid(1);
    const bool bare = !args.isEmpty() && args.first() == QLatin1String("--bare");
    PocketsphinxEngine::Settings bareSettings;
    if (bare && args.size() >= 3) {
        bareSettings.leadIn = std::chrono::milliseconds(args[1].toInt());
        if (args[2] == QLatin1String("flat"))
            bareSettings.pass = PocketsphinxEngine::Settings::Pass::flat;
        args = args.mid(3);
    }
    const QString cache = args.value(0, QStringLiteral(TOLVANE_BENCH_CACHE));
    const auto recordings = BenchSpeech::recordings(cache);

    if (bare) {
        const QByteArray json = QJsonDocument(bareEngine(recordings, bareSettings).toJson()).toJson(QJsonDocument::Compact);
        std::printf("%s\n", json.constData());
        return 0;
    }

    double seconds = 0;
    for (const auto& r : recordings)
        seconds += r.seconds;
    std::printf("%zu sentences, %.1f s of audio in simulated real time, %u cores\n\n", recordings.size(), seconds,
                std::thread::hardware_concurrency());
    std::printf("%-34s %6s %11s %11s %10s %7s\n", "", "RTF", "end p50", "end p95", "peak RSS", "WER %");
    const Tuning before{"before", 0, "flat"}, flat{"flat pass", Settings::speechLeadInMs.fallback, "flat"},
        now{"now", Settings::speechLeadInMs.fallback, "lattice"};
    for (const Tuning& tuning : {before, flat, now}) {
        Preferences::shared().setValue(Settings::speechLeadInMs, tuning.leadInMs);
        Preferences::shared().setValue(Settings::speechDecoderPass, QString::fromLatin1(tuning.pass));
        const Result ours = runOurs(recordings);
        const Result bareResult = runBare(cache, tuning);
        std::printf("%-34s", (QStringLiteral("Tolvane path, ") + QLatin1String(tuning.name)).toUtf8().constData());
        printRow("", ours);
        std::printf("%-34s", (QStringLiteral("bare pocketsphinx, ") + QLatin1String(tuning.name)).toUtf8().constData());
        printRow("", bareResult);
        std::printf("  %s: CPU ratio %.2f (target <= 1.1); end p50 %.1f ms\n\n", tuning.name, ours.rtf / bareResult.rtf,
                    ours.endP50);
    }
    return 0;
}
