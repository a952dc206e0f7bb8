// Chooses the pocketsphinx decoder settings: for each candidate, word errors and the time from the
// last audio block to the final hypothesis (ending the utterance), on the same synthesised speech.
// The decoder is driven bare, block by block, segmenting at its voice-activity end as the engine does.
//
//   bench_decoder_settings [cache-folder]

#include "BenchSpeech.h"

#include "speech/PocketsphinxEngine.h"

#include <QCoreApplication>
#include <QDir>


#include <chrono>
#include <cmath>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

struct Candidate {
    const char* name;
    PocketsphinxEngine::Settings settings;
};

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString cache = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::tempPath() + QStringLiteral("/tolvane-bench-speech");

    auto with = [](bool fwdflat, bool bestpath, int post, QStringList extra = {}) {
        PocketsphinxEngine::Settings s;
        s.fwdflat = fwdflat;
        s.bestpath = bestpath;
        s.vadPostspeech = post;
        s.extra = extra;
        return s;
    };
    const QStringList wide{QStringLiteral("-beam"), QStringLiteral("1e-60"), QStringLiteral("-wbeam"), QStringLiteral("1e-40"),
                           QStringLiteral("-pbeam"), QStringLiteral("1e-60"), QStringLiteral("-maxhmmpf"), QStringLiteral("-1")};
    const std::vector<Candidate> candidates{
        {"defaults: fwdflat+bestpath, end 0.5 s", with(true, true, 50)},
        {"fwdflat, end 0.5 s", with(true, false, 50)},
        {"first pass, end 0.5 s", with(false, false, 50)},
        {"first pass, wide beams, end 0.5 s", with(false, false, 50, wide)},
        {"fwdflat+bestpath, end 0.2 s", with(true, true, 20)},
        {"fwdflat, end 0.2 s", with(true, false, 20)},
        {"first pass, end 0.2 s", with(false, false, 20)},
        {"fwdflat+bestpath, end 0.3 s", with(true, true, 30)},
        {"fwdflat, end 0.3 s", with(true, false, 30)},
        {"first pass, end 0.3 s", with(false, false, 30)},
        {"engine default", PocketsphinxEngine::Settings()},
    };
    for (const double tail : {0.3, 0.1}) {
    const auto recordings = BenchSpeech::recordings(cache, 0.3, tail);
    double totalSeconds = 0;
    int referenceWords = 0;
    for (const auto& r : recordings) {
        totalSeconds += r.seconds;
        referenceWords += static_cast<int>(BenchSpeech::words(r.text).size());
    }
    std::printf("\n%zu sentences, %.1f s of audio, %d words, key released %.1f s after the last word\n",
                recordings.size(), totalSeconds, referenceWords, tail);
    std::printf("%-38s %7s %9s %9s %9s %7s\n", "settings", "WER %", "end p50", "end p95", "end max", "RTF");

    for (const Candidate& c : candidates) {
        BenchSpeech::BareDecoder decoder(c.settings);
        int errors = 0;
        std::vector<double> endTimes;
        const double cpu0 = BenchSpeech::cpuSeconds();
        for (const auto& r : recordings) {
            const std::vector<std::int16_t> pcm = BenchSpeech::toPcm(r.mono16k);
            decoder.begin();
            for (size_t at = 0; at < pcm.size(); at += 341)
                decoder.feed(pcm.data() + at, std::min<size_t>(341, pcm.size() - at));
            const auto t = Clock::now();
            const QString heard = decoder.end();
            endTimes.push_back(msSince(t));
            errors += BenchSpeech::wordErrors(BenchSpeech::words(r.text), BenchSpeech::words(heard));
        }
        const double rtf = (BenchSpeech::cpuSeconds() - cpu0) / totalSeconds;
        std::printf("%-38s %7.1f %7.1fms %7.1fms %7.1fms %7.3f\n", c.name, 100.0 * errors / referenceWords,
                    BenchSpeech::median(endTimes), BenchSpeech::percentile(endTimes, 95),
                    BenchSpeech::percentile(endTimes, 100), rtf);
        std::fflush(stdout);
    }
    }
    return 0;
}
