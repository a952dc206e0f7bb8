#include "audio/AudioConverter.h"

#include "AudioTestSupport.h"

#include <QTest>

#include <cmath>

namespace {

const AudioFormat mono16k{16000, 1};

// Streams `blocks` blocks of a 1 kHz tone (amplitude 0.5) through the converter one at a time and
// collects the output; checks each block's capacity on the way.
AudioBuffer stream(AudioConverter& converter, int blocks, double frequency = 1000)
{
    AudioBuffer all{converter.outputFormat(), {}};
    for (int b = 0; b < blocks; ++b) {
        const AudioBuffer in = AudioTest::sine(converter.inputFormat(), 1024, frequency, 0.5f, long(b) * 1024);
        const auto capacity = AudioConverter::frameCapacity(in, converter.outputFormat());
        std::optional<AudioBuffer> out = converter.convertBlock(in);
        if (!out || !capacity)
            return {};
        // Allocated once at the capacity rule's size and trimmed to what was produced.
        if (out->samples.capacity() != std::size_t(*capacity) * converter.outputFormat().channelCount)
            return {};
        all.samples.insert(all.samples.end(), out->samples.begin(), out->samples.end());
    }
    return all;
}

}  // namespace

class AudioConverterTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void capacityRule()
    {
        const AudioBuffer at48k = AudioTest::constant({48000, 2}, 1024, 0);
        const AudioBuffer at44k = AudioTest::constant({44100, 2}, 1024, 0);
        QCOMPARE(AudioConverter::frameCapacity(at48k, mono16k), std::optional<std::uint32_t>(1365u));
        QCOMPARE(AudioConverter::frameCapacity(at44k, mono16k), std::optional<std::uint32_t>(1395u));
        QCOMPARE(AudioConverter::frameCapacity(AudioBuffer{{48000, 1}, {}}, mono16k), std::optional<std::uint32_t>(1024u));
        // Upsampling a huge block past 32 bits has no capacity.
        const AudioBuffer big = AudioTest::constant({8000, 1}, 1 << 20, 0);
        QCOMPARE(AudioConverter::frameCapacity(big, AudioFormat{1e9, 1}), std::nullopt);
    }

    void downsamplesStereoToMonoKeepingToneAndFrameCount_data()
    {
        QTest::addColumn<double>("rate");
        QTest::newRow("48 kHz") << 48000.0;
        QTest::newRow("44.1 kHz") << 44100.0;
    }
    void downsamplesStereoToMonoKeepingToneAndFrameCount()
    {
        QFETCH(double, rate);
        auto converter = AudioConverter::create({rate, 2}, mono16k);
        QVERIFY(converter);
        constexpr int blocks = 100;
        const AudioBuffer out = stream(*converter, blocks);
        QCOMPARE(out.format, mono16k);
        QVERIFY(!out.samples.empty());

        // Every input frame comes out, apart from what the resampler still holds.
        const double expected = blocks * 1024 * 16000.0 / rate;
        QVERIFY2(std::abs(out.frameCount() + converter->delay() - expected) <= 1.0,
                 qPrintable(QStringLiteral("%1 frames + delay %2, expected %3").arg(out.frameCount()).arg(converter->delay()).arg(expected)));
        QVERIFY(converter->delay() < 1024);

        // The tone is still a 1 kHz tone at the same loudness, and nothing else.
        const std::size_t settled = 2000;  // past the filter's start-up
        const double level = AudioTest::rms(out.samples, settled);
        QVERIFY2(std::abs(level - 0.5 / std::sqrt(2.0)) < 0.005, qPrintable(QString::number(level)));
        const double at1k = AudioTest::tonePower(out.samples, 16000, 1000, settled);
        const double at3k = AudioTest::tonePower(out.samples, 16000, 3000, settled);
        QVERIFY(std::abs(at1k - 0.0625) < 0.002);
        QVERIFY(at3k < 1e-6);
    }

    void toneAboveTheNewNyquistIsRemoved()
    {
        auto converter = AudioConverter::create({48000, 1}, mono16k);
        const AudioBuffer out = stream(*converter, 60, 12000);
        QVERIFY(!out.samples.empty());
        QVERIFY(AudioTest::rms(out.samples, 2000) < 0.005);  // not folded back to 4 kHz
    }

    void stereoIsAveragedIntoMonoAndMonoCopiedToStereo()
    {
        // Same rate, only the channels change: no resampling, exact values.
        auto down = AudioConverter::create({16000, 2}, mono16k);
        QVERIFY(down);
        AudioBuffer in{{16000, 2}, {0.2f, 0.4f, -1.0f, 0.0f, 0.5f, 0.5f}};
        std::optional<AudioBuffer> out = down->convertBlock(in);
        QVERIFY(out);
        QCOMPARE(out->samples, (std::vector<float>{0.3f, -0.5f, 0.5f}));

        auto up = AudioConverter::create(mono16k, {16000, 2});
        out = up->convertBlock(AudioBuffer{mono16k, {0.1f, -0.2f}});
        QVERIFY(out);
        QCOMPARE(out->format, (AudioFormat{16000, 2}));
        QCOMPARE(out->samples, (std::vector<float>{0.1f, 0.1f, -0.2f, -0.2f}));

        // Mono upsampled into stereo keeps the tone on both channels.
        auto spread = AudioConverter::create({8000, 1}, {16000, 2});
        AudioBuffer all{{16000, 2}, {}};
        for (int b = 0; b < 40; ++b) {
            auto o = spread->convertBlock(AudioTest::sine({8000, 1}, 1024, 440, 0.5f, long(b) * 1024));
            QVERIFY(o);
            all.samples.insert(all.samples.end(), o->samples.begin(), o->samples.end());
        }
        const auto left = AudioTest::channel(all, 0);
        QCOMPARE(left, AudioTest::channel(all, 1));
        QVERIFY(std::abs(AudioTest::rms(left, 4000) - 0.5 / std::sqrt(2.0)) < 0.005);
    }

    void unsupportedConversionsAreRefusedWithAReason()
    {
        QString why;
        QVERIFY(!AudioConverter::create({48000, 3}, {16000, 2}, &why));
        QVERIFY2(why.contains(QStringLiteral("48000 Hz, 3 ch")), qPrintable(why));
        QVERIFY(!AudioConverter::create({0, 1}, mono16k, &why));
        QVERIFY(!AudioConverter::create({48000, 1}, {16000, 0}, &why));
        QVERIFY(!AudioConverter::create({std::nan(""), 1}, mono16k, &why));
    }

    void pullContract()
    {
        auto converter = AudioConverter::create({48000, 1}, mono16k);
        const AudioBuffer block = AudioTest::sine({48000, 1}, 1024, 500, 0.5f);

        // The pull is asked again until it has nothing for now: two blocks, then noDataNow.
        int asked = 0;
        AudioBuffer out;
        auto status = converter->convert(out, 4000, [&](const AudioBuffer*& b) {
            ++asked;
            if (asked > 2)
                return AudioConverter::InputStatus::noDataNow;
            b = &block;
            return AudioConverter::InputStatus::haveData;
        });
        QCOMPARE(status, AudioConverter::OutputStatus::inputRanDry);
        QCOMPARE(asked, 3);
        QCOMPARE(out.format, mono16k);
        QVERIFY(out.frameCount() > 0 && out.frameCount() <= 2 * 342);

        // End of stream flushes what the resampler held back.
        const double held = converter->delay();
        QVERIFY(held > 0);
        status = converter->convert(out, 4000, [](const AudioBuffer*&) { return AudioConverter::InputStatus::endOfStream; });
        QCOMPARE(status, AudioConverter::OutputStatus::endOfStream);
        QVERIFY(std::abs(out.frameCount() - held) <= 1);

        // A full output stops the pulling.
        auto fresh = AudioConverter::create(mono16k, {16000, 1});
        asked = 0;
        status = fresh->convert(out, 10, [&](const AudioBuffer*& b) {
            ++asked;
            static const AudioBuffer ten = AudioTest::constant(mono16k, 10, 0.1f);
            b = &ten;
            return AudioConverter::InputStatus::haveData;
        });
        QCOMPARE(status, AudioConverter::OutputStatus::haveData);
        QCOMPARE(asked, 1);
        QCOMPARE(out.frameCount(), 10);
    }

    void badInputIsAnErrorNotACrash()
    {
        auto converter = AudioConverter::create({48000, 2}, mono16k);
        QString why;
        AudioBuffer out;
        const AudioBuffer wrong = AudioTest::constant({44100, 2}, 1024, 0.1f);
        bool given = false;
        auto status = converter->convert(out, 2000, [&](const AudioBuffer*& b) {
            if (given)
                return AudioConverter::InputStatus::noDataNow;
            given = true;
            b = &wrong;
            return AudioConverter::InputStatus::haveData;
        }, &why);
        QCOMPARE(status, AudioConverter::OutputStatus::error);
        QVERIFY2(why.contains(QStringLiteral("44100 Hz")), qPrintable(why));
        QCOMPARE(converter->convertBlock(wrong), std::nullopt);

        status = converter->convert(out, 2000, [](const AudioBuffer*&) { return AudioConverter::InputStatus::haveData; }, &why);
        QCOMPARE(status, AudioConverter::OutputStatus::error);

        // A block larger than the room left is refused rather than cut.
        auto same = AudioConverter::create(mono16k, {16000, 1});
        const AudioBuffer big = AudioTest::constant(mono16k, 100, 0.1f);
        status = same->convert(out, 50, [&](const AudioBuffer*& b) {
            b = &big;
            return AudioConverter::InputStatus::haveData;
        }, &why);
        QCOMPARE(status, AudioConverter::OutputStatus::error);

        // The converter carries on after a bad block.
        QVERIFY(converter->convertBlock(AudioTest::constant({48000, 2}, 1024, 0.1f)));
        // An empty block gives an empty block in the output format.
        const auto empty = converter->convertBlock(AudioBuffer{{48000, 2}, {}});
        QVERIFY(empty && empty->frameCount() == 0 && empty->format == mono16k);
    }
};

QTEST_GUILESS_MAIN(AudioConverterTest)
#include "AudioConverterTest.moc"
