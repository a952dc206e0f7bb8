// Chooses the pocketsphinx decoder settings: for each candidate, word errors, first words heard and
// the time from the last audio block to the final hypothesis (ending the utterance), on the same
// synthesised speech.
// The decoder is driven bare, block by block, segmenting at its voice-activity end as the engine does.
//
//   bench_decoder_settings [cache-folder]   (default: bench-speech in the build folder)

#include "BenchSpeech.h"

#include "speech/PocketsphinxEngine.h"

#include <QCoreApplication>


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
    BenchSpeech::runInSandbox(argc, argv, false);  // the trimmed dictionary goes to the sandbox's cache
    QCoreApplication app(argc, argv);
    const QString cache = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(TOLVANE_BENCH_CACHE);

    using ms = std::chrono::milliseconds;
    auto with = [](bool fwdflat, int post, ms leadIn, ms splitAfter, ms splitPause = ms(100)) {
        PocketsphinxEngine::Settings s;
        s.fwdflat = fwdflat;
        s.vadPostspeech = post;
        s.leadIn = leadIn;
        s.splitAfter = splitAfter;
        s.splitPause = splitPause;
        return s;
    };
    const std::vector<Candidate> candidates{
        {"before: fwdflat, end 0.3 s", with(true, 30, ms(0), ms(0))},
        {"first pass, end 0.3 s", with(false, 30, ms(0), ms(0))},
        {"+ lead-in 0.15 s", with(true, 30, ms(150), ms(0))},
        {"+ lead-in, split >1 s at 0.1 s", with(true, 30, ms(150), ms(1000))},
        {"+ lead-in, split >2 s at 0.1 s", with(true, 30, ms(150), ms(2000))},
        {"+ lead-in, split >3 s at 0.1 s", with(true, 30, ms(150), ms(3000))},
        {"+ lead-in, split >2 s at 0.12 s", with(true, 30, ms(150), ms(2000), ms(120))},
        {"+ lead-in, split >2 s at 0.15 s", with(true, 30, ms(150), ms(2000), ms(150))},
        {"engine default", PocketsphinxEngine::Settings()},
    };
    struct Set {
        const char* name;
        double lead, tail;
        BenchSpeech::Length length;
    };
    for (const Set& set : {Set{"3-4 s sentences", 0.3, 0.15, BenchSpeech::Length::sentence},
                           Set{"3-4 s sentences, speech from the first sample", 0.0, 0.15, BenchSpeech::Length::sentence},
                           Set{"~10 s sentences", 0.3, 0.15, BenchSpeech::Length::long_},
                           Set{"~10 s sentences", 0.3, 0.0, BenchSpeech::Length::long_}}) {
    const auto recordings = BenchSpeech::recordings(cache, set.lead, set.tail, set.length);
    double totalSeconds = 0;
    int referenceWords = 0;
    for (const auto& r : recordings) {
        totalSeconds += r.seconds;
        referenceWords += static_cast<int>(BenchSpeech::words(r.text).size());
    }
    std::printf("\n%s: %zu, %.1f s of audio, %d words, key released %.2f s after the last word\n", set.name,
                recordings.size(), totalSeconds, referenceWords, set.tail);
    std::printf("%-38s %7s %9s %9s %9s %7s %7s\n", "settings", "WER %", "end p50", "end p95", "end max", "RTF", "first");

    for (const Candidate& c : candidates) {
        BenchSpeech::BareDecoder decoder(c.settings);
        int errors = 0, firstWords = 0;
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
            firstWords += BenchSpeech::words(heard).value(0) == BenchSpeech::words(r.text).value(0);
        }
        const double rtf = (BenchSpeech::cpuSeconds() - cpu0) / totalSeconds;
        std::printf("%-38s %7.1f %7.1fms %7.1fms %7.1fms %7.3f %4d/%zu\n", c.name, 100.0 * errors / referenceWords,
                    BenchSpeech::median(endTimes), BenchSpeech::percentile(endTimes, 95),
                    BenchSpeech::percentile(endTimes, 100), rtf, firstWords, recordings.size());
        std::fflush(stdout);
    }
    }
    return 0;
}
