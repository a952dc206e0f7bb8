// Chooses the pocketsphinx decoder settings: for each candidate, word errors, first words heard and
// the time from the last audio block to the final hypothesis (ending the utterance), on the same
// synthesised speech, and the word errors on sentences held out from the choosing.
// The decoder is driven bare, block by block, segmenting at its voice-activity end as the engine does.
//
//   bench_decoder_settings [cache-folder]   (default: bench-speech in the build folder)

#include "BenchSpeech.h"

#include "speech/PocketsphinxEngine.h"

#include <QCoreApplication>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, false);  // the trimmed dictionary goes to the sandbox's cache
    QCoreApplication app(argc, argv);
    const QString cache = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(TOLVANE_BENCH_CACHE);

    using ms = std::chrono::milliseconds;
    // A candidate from words: "flat" or "lattice" (the pass that finds the words), "lead N", "split N",
    // "pause N", "post N" (ms, or frames for post) and decoder arguments ("-lw 6.5"). No lead-in
    // unless given.
    auto with = [](const QString& words) {
        PocketsphinxEngine::Settings s;
        s.leadIn = ms(0);
        const QStringList w = words.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (qsizetype i = 0; i < w.size(); ++i) {
            const int n = w.value(i + 1).toInt();
            if (w[i] == QLatin1String("flat") || w[i] == QLatin1String("lattice")) {
                s.pass = w[i] == QLatin1String("flat") ? PocketsphinxEngine::Settings::Pass::flat
                                                       : PocketsphinxEngine::Settings::Pass::lattice;
                continue;
            }
            if (w[i] == QLatin1String("lead")) s.leadIn = ms(n);
            else if (w[i] == QLatin1String("split")) s.splitAfter = ms(n);
            else if (w[i] == QLatin1String("pause")) s.splitPause = ms(n);
            else if (w[i] == QLatin1String("post")) s.vadPostspeech = n;
            else s.extra << w[i] << w.value(i + 1);
            ++i;
        }
        return s;
    };
    std::vector<std::pair<std::string, PocketsphinxEngine::Settings>> candidates{
        {"before: flat pass, end 0.3 s", with(QStringLiteral("flat"))},
        {"flat pass + lead-in 0.15 s", with(QStringLiteral("flat lead 150"))},
        {"flat pass, lead-in, split >2 s at 0.1 s", with(QStringLiteral("flat lead 150 split 2000"))},
        // The lattice with pocketsphinx's own first-pass beams: as quick, more words wrong.
        {"lattice, narrower beams", with(QStringLiteral("lattice lead 150 -beam 1e-48 -pbeam 1e-48 -maxwpf -1"))},
        {"engine default (lattice)", PocketsphinxEngine::Settings()},
    };
    // TOLVANE_DECODER_TRY="name|words;name|words" measures those candidates instead.
    if (const QString tried = qEnvironmentVariable("TOLVANE_DECODER_TRY"); !tried.isEmpty()) {
        candidates.clear();
        for (const QString& item : tried.split(QLatin1Char(';'), Qt::SkipEmptyParts))
            candidates.emplace_back(item.section(QLatin1Char('|'), 0, 0).toStdString(), with(item.section(QLatin1Char('|'), 1)));
    }
    struct Set {
        const char* name;
        double lead, tail;
        BenchSpeech::Length length;
    };
    // Word errors and words said per candidate, on the sets settings were chosen on and on the held-out ones.
    std::map<std::string, std::array<int, 4>> totals;
    for (const Set& set : {Set{"3-4 s sentences", 0.3, 0.15, BenchSpeech::Length::sentence},
                           Set{"3-4 s sentences, speech from the first sample", 0.0, 0.15, BenchSpeech::Length::sentence},
                           Set{"~10 s sentences", 0.3, 0.15, BenchSpeech::Length::long_},
                           Set{"~10 s sentences", 0.3, 0.0, BenchSpeech::Length::long_},
                           Set{"held-out sentences", 0.3, 0.15, BenchSpeech::Length::heldOut},
                           Set{"held-out sentences, speech from the first sample", 0.0, 0.0, BenchSpeech::Length::heldOut}}) {
    const auto recordings = BenchSpeech::recordings(cache, set.lead, set.tail, set.length);
    double totalSeconds = 0;
    int referenceWords = 0;
    for (const auto& r : recordings) {
        totalSeconds += r.seconds;
        referenceWords += static_cast<int>(BenchSpeech::words(r.text).size());
    }
    std::printf("\n%s: %zu, %.1f s of audio, %d words, key released %.2f s after the last word\n", set.name,
                recordings.size(), totalSeconds, referenceWords, set.tail);
    // The end in CPU time too: unlike the wall clock, it does not grow when other work shares the machine.
    std::printf("%-38s %7s %9s %9s %9s %9s %7s %7s\n", "settings", "WER %", "end p50", "end p95", "end max", "cpu p50", "RTF",
                "first");

    for (const auto& [name, settings] : candidates) {
        BenchSpeech::BareDecoder decoder(settings);
        int errors = 0, firstWords = 0;
        std::vector<double> endTimes, endCpu;
        const double cpu0 = BenchSpeech::cpuSeconds();
        for (const auto& r : recordings) {
            const std::vector<std::int16_t> pcm = BenchSpeech::toPcm(r.mono16k);
            decoder.begin();
            for (size_t at = 0; at < pcm.size(); at += 341)
                decoder.feed(pcm.data() + at, std::min<size_t>(341, pcm.size() - at));
            const auto t = Clock::now();
            const double c = BenchSpeech::cpuSeconds();
            const QString heard = decoder.end();
            endTimes.push_back(msSince(t));
            endCpu.push_back(1000 * (BenchSpeech::cpuSeconds() - c));
            errors += BenchSpeech::wordErrors(BenchSpeech::words(r.text), BenchSpeech::words(heard));
            firstWords += BenchSpeech::words(heard).value(0) == BenchSpeech::words(r.text).value(0);
        }
        const double rtf = (BenchSpeech::cpuSeconds() - cpu0) / totalSeconds;
        const size_t at = set.length == BenchSpeech::Length::heldOut ? 2 : 0;
        totals[name][at] += errors;
        totals[name][at + 1] += referenceWords;
        std::printf("%-38s %7.1f %7.1fms %7.1fms %7.1fms %7.1fms %7.3f %4d/%zu\n", name.c_str(), 100.0 * errors / referenceWords,
                    BenchSpeech::median(endTimes), BenchSpeech::percentile(endTimes, 95),
                    BenchSpeech::percentile(endTimes, 100), BenchSpeech::median(endCpu), rtf, firstWords, recordings.size());
        std::fflush(stdout);
    }
    }
    std::printf("\nWord errors over all the sets\n%-38s %12s %12s\n", "settings", "chosen on", "held out");
    for (const auto& [name, settings] : candidates) {
        const auto& t = totals[name];
        std::printf("%-38s %10.2f %% %10.2f %%\n", name.c_str(), 100.0 * t[0] / t[1], 100.0 * t[2] / t[3]);
    }
    return 0;
}
