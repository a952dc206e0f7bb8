// Cost of the audio tap's work for one 1024-frame block of 48 kHz stereo: the level, the peak log
// cadence and the conversion to 16 kHz mono, as the capture thread runs it. Target: 20 µs a block.
//
//   build/bench/bench_audio_tap [blocks] 2>/dev/null

#include "audio/AudioConverter.h"
#include "audio/AudioEngineController.h"
#include "audio/LevelMeter.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numbers>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Hands blocks to the tap on the calling thread, as fast as the tap takes them.
class BenchSource final : public CaptureSource {
public:
    AudioFormat inputFormat() override { return {48000, 2}; }
    void start(BlockHandler h) override { handler = std::move(h); }
    void stop() override { handler = nullptr; }
    BlockHandler handler;
};

std::vector<AudioBuffer> speechLikeBlocks(int count)
{
    std::vector<AudioBuffer> blocks;
    long n = 0;
    for (int b = 0; b < count; ++b) {
        AudioBuffer block{{48000, 2}, std::vector<float>(2048)};
        for (int i = 0; i < 1024; ++i, ++n) {
            const double t = double(n) / 48000;
            const float v = float(0.3 * std::sin(2 * std::numbers::pi * 220 * t) + 0.1 * std::sin(2 * std::numbers::pi * 1730 * t));
            block.samples[2 * i] = v;
            block.samples[2 * i + 1] = 0.8f * v;
        }
        blocks.push_back(std::move(block));
    }
    return blocks;
}

struct Stats {
    double mean, median, p99, max;
    double cpu;  // this thread's processor time per block: unaffected by other programs taking the cores
};

double threadCpuMicros()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

Stats summarise(std::vector<double> us)
{
    std::sort(us.begin(), us.end());
    double sum = 0;
    for (double v : us)
        sum += v;
    return {sum / us.size(), us[us.size() / 2], us[us.size() * 99 / 100], us.back(), 0};
}

void print(const char* what, const Stats& s)
{
    std::printf("%-34s cpu %5.2f µs | wall: mean %6.2f  median %5.2f  p99 %6.2f  max %8.2f µs\n", what, s.cpu, s.mean,
                s.median, s.p99, s.max);
}

template <typename Work>
Stats time(int blocks, Work work)
{
    std::vector<double> us;
    us.reserve(blocks);
    const double cpu0 = threadCpuMicros();
    for (int i = 0; i < blocks; ++i) {
        const auto t0 = Clock::now();
        work(i);
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    const double cpu = (threadCpuMicros() - cpu0) / blocks;
    Stats stats = summarise(std::move(us));
    stats.cpu = cpu;
    return stats;
}

}  // namespace

int main(int argc, char** argv)
{
    QTemporaryDir data;  // the peak lines go to a throw-away log, not the user's
    qputenv("XDG_DATA_HOME", data.path().toUtf8());
    QCoreApplication app(argc, argv);
    const int blocks = argc > 1 ? std::max(100, std::atoi(argv[1])) : 20000;
    const std::vector<AudioBuffer> input = speechLikeBlocks(256);

    LevelMeter meter;
    float sink = 0;
    print("level only", time(blocks, [&](int i) { sink += meter.measure(input[i % input.size()]).level; }));

    auto converter = AudioConverter::create({48000, 2}, {16000, 1});
    long frames = 0;
    print("conversion only", time(blocks, [&](int i) { frames += converter->convertBlock(input[i % input.size()])->frameCount(); }));

    auto* source = new BenchSource;
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    audio.onAmplitude = [&](float level) { sink += level; };
    audio.onBuffer = [&](AudioBuffer buffer) { frames += buffer.frameCount(); };
    audio.start();
    print("whole tap (48k stereo → 16k mono)", time(blocks, [&](int i) { source->handler(input[i % input.size()]); }));
    audio.stop();

    std::printf("%d blocks each; one block of audio lasts %.1f µs (checksum %.1f, %ld frames)\n", blocks,
                1024 / 48000.0 * 1e6, double(sink), frames);
    return 0;
}
