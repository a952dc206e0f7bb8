#include "audio/AudioConverter.h"

#include "support/Sound.h"

#include <QTest>

#include <cmath>

namespace {

const AudioFormat mono16k{16000, 1};
using Status = AudioConverter::InputStatus;

// Runs convert() with a pull that hands out `blocks` in turn and then answers `then`.
AudioConverter::OutputStatus pull(AudioConverter& converter, AudioBuffer& out, std::uint32_t room,
                                  std::vector<const AudioBuffer*> blocks, Status then, int* asked = nullptr,
                                  QString* why = nullptr)
{
    std::size_t next = 0;
    return converter.convert(out, room, [&](const AudioBuffer*& b) {
        if (asked)
            ++*asked;
        if (next == blocks.size())
            return then;
        b = blocks[next++];
        return Status::haveData;
    }, why);
}

}  // namespace

class AudioConverterTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void resamplingKeepsTheToneAndEveryFrame_data()
    {
        QTest::addColumn<double>("inRate");
        QTest::addColumn<int>("inChannels");
        QTest::addColumn<int>("outChannels");
        QTest::addColumn<double>("frequency");
        QTest::addColumn<double>("level");  // expected RMS of every output channel
        const double sineRms = 0.5 / std::sqrt(2.0);
        QTest::newRow("48 kHz stereo to mono") << 48000.0 << 2 << 1 << 1000.0 << sineRms;
        QTest::newRow("44.1 kHz stereo to mono") << 44100.0 << 2 << 1 << 1000.0 << sineRms;
        QTest::newRow("8 kHz mono to stereo") << 8000.0 << 1 << 2 << 1000.0 << sineRms;
        // Above the new Nyquist frequency: removed, not folded back to 4 kHz.
        QTest::newRow("12 kHz tone removed") << 48000.0 << 1 << 1 << 12000.0 << 0.0;
    }
    void resamplingKeepsTheToneAndEveryFrame()
    {
        QFETCH(double, inRate);
        QFETCH(int, inChannels);
        QFETCH(int, outChannels);
        QFETCH(double, frequency);
        QFETCH(double, level);
        const AudioFormat target{16000, outChannels};
        auto converter = AudioConverter::create({inRate, inChannels}, target);
        QVERIFY(converter);
        constexpr int blocks = 100;
        AudioBuffer out{target, {}};
        for (int b = 0; b < blocks; ++b) {
            const AudioBuffer in = AudioTest::sine(converter->inputFormat(), 1024, frequency, 0.5f, long(b) * 1024);
            const auto capacity = AudioConverter::frameCapacity(in, target);
            std::optional<AudioBuffer> block = converter->convertBlock(in);
            QVERIFY(block && capacity);
            QCOMPARE(block->format, target);
            // Allocated once at the capacity rule's size, so the audio thread never reallocates.
            QCOMPARE(block->samples.capacity(), std::size_t(*capacity) * outChannels);
            out.samples.insert(out.samples.end(), block->samples.begin(), block->samples.end());
        }

        // Every input frame comes out, apart from what the resampler still holds.
        const double expected = blocks * 1024 * 16000.0 / inRate;
        QVERIFY2(std::abs(out.frameCount() + converter->delay() - expected) <= 1.0,
                 qPrintable(QStringLiteral("%1 + %2, expected %3").arg(out.frameCount()).arg(converter->delay()).arg(expected)));
        QVERIFY(converter->delay() < 1024);

        const std::size_t settled = 2000;  // past the filter's start-up
        const std::vector<float> first = AudioTest::channel(out, 0);
        for (int c = 1; c < outChannels; ++c)
            QCOMPARE(AudioTest::channel(out, c), first);
        QVERIFY2(std::abs(AudioTest::rms(first, settled) - level) < 0.005, qPrintable(QString::number(AudioTest::rms(first, settled))));
        if (level > 0) {  // the same tone and nothing else
            QVERIFY(std::abs(AudioTest::tonePower(first, 16000, frequency, settled) - 0.0625) < 0.002);
            QVERIFY(AudioTest::tonePower(first, 16000, 3000, settled) < 1e-6);
        }
    }

    void channelsAreMixedExactlyAtTheSameRate()
    {
        auto down = AudioConverter::create({16000, 2}, mono16k);
        QVERIFY(down);
        std::optional<AudioBuffer> out = down->convertBlock(AudioBuffer{{16000, 2}, {0.2f, 0.4f, -1.0f, 0.0f, 0.5f, 0.5f}});
        QVERIFY(out);
        QCOMPARE(out->samples, (std::vector<float>{0.3f, -0.5f, 0.5f}));

        out = AudioConverter::create(mono16k, {16000, 2})->convertBlock(AudioBuffer{mono16k, {0.1f, -0.2f}});
        QVERIFY(out);
        QCOMPARE(out->samples, (std::vector<float>{0.1f, 0.1f, -0.2f, -0.2f}));

        QString why;
        QVERIFY(!AudioConverter::create({48000, 3}, {16000, 2}, &why));
        QVERIFY2(why.contains(QStringLiteral("48000 Hz, 3 ch")), qPrintable(why));
        QVERIFY(!AudioConverter::create({0, 1}, mono16k));
        QVERIFY(!AudioConverter::create({std::nan(""), 1}, mono16k));
    }

    void endOfStreamFlushesWhatTheResamplerHeld()
    {
        auto converter = AudioConverter::create({48000, 1}, mono16k);
        const AudioBuffer block = AudioTest::sine({48000, 1}, 1024, 500, 0.5f);
        AudioBuffer out;
        int asked = 0;
        QCOMPARE(pull(*converter, out, 4000, {&block, &block}, Status::noDataNow, &asked),
                 AudioConverter::OutputStatus::inputRanDry);
        QCOMPARE(asked, 3);
        const int given = out.frameCount();
        const double held = converter->delay();
        QVERIFY(held > 0);
        QCOMPARE(pull(*converter, out, 4000, {}, Status::endOfStream), AudioConverter::OutputStatus::endOfStream);
        // The tail comes out; with what came before, that is all of the 2 × 1024 / 3 frames.
        QVERIFY(std::abs(out.frameCount() - held) <= 1);
        QVERIFY(std::abs(given + out.frameCount() - 2 * 1024 / 3.0) <= 1);
    }

    void badInputIsRefusedAndTheStreamGoesOn()
    {
        auto converter = AudioConverter::create({48000, 2}, mono16k);
        const AudioBuffer wrong = AudioTest::constant({44100, 2}, 1024, 0.1f);
        AudioBuffer out;
        QString why;
        QCOMPARE(pull(*converter, out, 2000, {&wrong}, Status::noDataNow, nullptr, &why), AudioConverter::OutputStatus::error);
        QVERIFY2(why.contains(QStringLiteral("44100 Hz")), qPrintable(why));
        QCOMPARE(converter->convertBlock(wrong), std::nullopt);
        QVERIFY(converter->convertBlock(AudioTest::constant({48000, 2}, 1024, 0.1f)));

        // A block larger than the room left is refused rather than cut.
        auto same = AudioConverter::create(mono16k, mono16k);
        const AudioBuffer big = AudioTest::constant(mono16k, 100, 0.1f);
        QCOMPARE(pull(*same, out, 50, {&big}, Status::noDataNow), AudioConverter::OutputStatus::error);
    }
};

QTEST_GUILESS_MAIN(AudioConverterTest)
#include "AudioConverterTest.moc"
