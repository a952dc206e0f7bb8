// Chooses the pocketsphinx decoder settings: for each candidate, word errors and the time from the
// last audio block to the final hypothesis (ending the utterance), on the same synthesised speech.
// The decoder is driven bare, block by block, segmenting at its voice-activity end as the engine does.
//
//   bench_decoder_settings [cache-folder]

#include "BenchSpeech.h"

#include "speech/PocketsphinxEngine.h"

#include <QCoreApplication>
#include <QDir>

#include <pocketsphinx.h>
#include <sphinxbase/err.h>

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

ps_decoder_t* makeDecoder(const PocketsphinxEngine::Model& model, const PocketsphinxEngine::Settings& settings)
{
    QStringList args = PocketsphinxEngine::decoderArguments(model, settings);
    args.prepend(QStringLiteral("bench"));
    std::vector<QByteArray> bytes;
    for (const QString& a : args)
        bytes.push_back(a.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& b : bytes)
        argv.push_back(b.data());
    cmd_ln_t* config = cmd_ln_parse_r(nullptr, ps_args(), static_cast<int32>(argv.size()), argv.data(), FALSE);
    ps_decoder_t* ps = ps_init(config);
    cmd_ln_free_r(config);
    return ps;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    err_set_logfp(nullptr);
    const QString cache = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::tempPath() + QStringLiteral("/tolvane-bench-speech");
    const auto model = PocketsphinxEngine::Model::inFolder(QStringLiteral("/usr/share/pocketsphinx/model/en-us"), QStringLiteral("en-us"));
    if (!model)
        qFatal("pocketsphinx-en-us is needed");

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
        ps_decoder_t* ps = makeDecoder(*model, c.settings);
        if (!ps)
            qFatal("decoder failed for %s", c.name);
        int errors = 0;
        std::vector<double> endTimes;
        const double cpu0 = BenchSpeech::cpuSeconds();
        for (const auto& r : recordings) {
            std::vector<int16> pcm(r.mono16k.size());
            for (size_t i = 0; i < pcm.size(); ++i)
                pcm[i] = static_cast<int16>(std::lrint(std::clamp(r.mono16k[i], -1.0f, 1.0f) * 32767.0f));
            QStringList heard;
            ps_start_stream(ps);
            ps_start_utt(ps);
            bool inSegment = false;
            for (size_t at = 0; at < pcm.size(); at += 341) {
                const size_t n = std::min<size_t>(341, pcm.size() - at);
                ps_process_raw(ps, pcm.data() + at, n, FALSE, FALSE);
                if (ps_get_in_speech(ps)) {
                    inSegment = true;
                } else if (inSegment) {
                    ps_end_utt(ps);
                    if (const char* hyp = ps_get_hyp(ps, nullptr))
                        heard << QString::fromUtf8(hyp);
                    ps_start_utt(ps);
                    inSegment = false;
                }
            }
            const auto t = Clock::now();
            ps_end_utt(ps);
            const char* hyp = ps_get_hyp(ps, nullptr);
            endTimes.push_back(msSince(t));
            if (hyp)
                heard << QString::fromUtf8(hyp);
            errors += BenchSpeech::wordErrors(BenchSpeech::words(r.text), BenchSpeech::words(heard.join(QLatin1Char(' '))));
        }
        const double rtf = (BenchSpeech::cpuSeconds() - cpu0) / totalSeconds;
        std::printf("%-38s %7.1f %7.1fms %7.1fms %7.1fms %7.3f\n", c.name, 100.0 * errors / referenceWords,
                    BenchSpeech::median(endTimes), BenchSpeech::percentile(endTimes, 95),
                    BenchSpeech::percentile(endTimes, 100), rtf);
        std::fflush(stdout);
        ps_free(ps);
    }
    }
    return 0;
}
