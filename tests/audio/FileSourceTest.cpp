#include "audio/AudioEngineController.h"
#include "audio/FileSource.h"

#include "AudioTestSupport.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <chrono>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

// What a source delivered, gathered on its audio thread.
struct Received {
    std::mutex mutex;
    std::vector<AudioBuffer> blocks;
    std::vector<Clock::time_point> times;

    CaptureSource::BlockHandler handler()
    {
        return [this](const AudioBuffer& block) {
            std::lock_guard lock(mutex);
            blocks.push_back(block);
            times.push_back(Clock::now());
        };
    }
    std::size_t count()
    {
        std::lock_guard lock(mutex);
        return blocks.size();
    }
};

QString writeTone(const QString& name, AudioFormat format, int frames)
{
    const QString path = AudioTest::sandboxPath(name);
    return AudioTest::writeWav(path, AudioTest::sine(format, frames, 440, 0.5f)) ? path : QString();
}

}  // namespace

class FileSourceTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void deliversTheWholeFileIn1024FrameBlocks()
    {
        const AudioFormat format{22050, 2};
        const QString path = writeTone(QStringLiteral("tone.wav"), format, 2500);
        QVERIFY(!path.isEmpty());
        FileSource source(path, FileSource::Pacing::asFastAsPossible);
        QCOMPARE(source.inputFormat(), format);
        QSignalSpy finished(&source, &FileSource::finished);
        Received got;
        source.start(got.handler());
        QVERIFY(finished.wait(10000));
        source.stop();
        std::vector<int> sizes;
        std::vector<float> left;
        for (const AudioBuffer& b : got.blocks) {
            QCOMPARE(b.format, format);
            sizes.push_back(b.frameCount());
            const auto c = AudioTest::channel(b, 0);
            left.insert(left.end(), c.begin(), c.end());
        }
        QCOMPARE(sizes, (std::vector<int>{1024, 1024, 452}));
        const AudioBuffer expected = AudioTest::sine(format, 2500, 440, 0.5f);
        for (std::size_t i = 0; i < left.size(); i += 97)
            QVERIFY(std::abs(left[i] - expected.samples[2 * i]) < 1e-3f);  // 16-bit file
    }

    void realTimePacingNeverRunsAheadOfTheAudio()
    {
        const AudioFormat format{16000, 1};
        const QString path = writeTone(QStringLiteral("half-second.wav"), format, 8000);
        FileSource source(path, FileSource::Pacing::realTime);
        QSignalSpy finished(&source, &FileSource::finished);
        Received got;
        const Clock::time_point began = Clock::now();
        source.start(got.handler());
        QVERIFY(finished.wait(10000));
        QCOMPARE(got.blocks.size(), std::size_t(8));  // 7 × 1024 + 832
        // Block n arrives only once all of it could have been heard, like a microphone's.
        long heard = 0;
        for (std::size_t i = 0; i < got.blocks.size(); ++i) {
            heard += got.blocks[i].frameCount();
            const auto due = std::chrono::duration<double>(double(heard) / format.sampleRate);
            QVERIFY2(got.times[i] - began >= due - std::chrono::milliseconds(1), qPrintable(QString::number(i)));
        }
    }

    void unpacedDeliveryDoesNotWaitForTheClock()
    {
        // Five minutes of audio: paced, it would take five minutes.
        const AudioFormat format{8000, 1};
        const QString path = writeTone(QStringLiteral("five-minutes.wav"), format, 8000 * 300);
        FileSource source(path, FileSource::Pacing::asFastAsPossible);
        QSignalSpy finished(&source, &FileSource::finished);
        Received got;
        source.start(got.handler());
        QVERIFY(finished.wait(60000));
        QCOMPARE(got.count(), std::size_t((8000 * 300 + 1023) / 1024));
    }

    void stopEndsDeliveryAndStartBeginsAgain()
    {
        const AudioFormat format{16000, 1};
        const QString path = writeTone(QStringLiteral("two-seconds.wav"), format, 32000);
        FileSource source(path, FileSource::Pacing::realTime);
        QSignalSpy finished(&source, &FileSource::finished);
        Received got;
        source.start(got.handler());
        QVERIFY(TestSupport::waitUntil([&] { return got.count() >= 2; }));
        source.stop();
        const std::size_t atStop = got.count();
        QTest::qWait(200);
        QCOMPARE(got.count(), atStop);
        QCOMPARE(finished.count(), 0);  // stopped, not finished
        source.stop();                   // harmless

        Received again;
        source.start(again.handler());
        QVERIFY(TestSupport::waitUntil([&] { return again.count() >= 1; }));
        source.stop();
        QCOMPARE(again.blocks.front().samples, got.blocks.front().samples);
    }

    void unreadableFilesAreClearErrors()
    {
        const QString missing = AudioTest::sandboxPath(QStringLiteral("nowhere.wav"));
        FileSource absent(missing);
        try {
            absent.inputFormat();
            QFAIL("no error for a missing file");
        } catch (const CollaboratorError& e) {
            QVERIFY2(e.localizedDescription().contains(missing), qPrintable(e.localizedDescription()));
        }
        QVERIFY_THROWS_EXCEPTION(CollaboratorError, absent.start([](const AudioBuffer&) {}));

        const QString garbage = AudioTest::sandboxPath(QStringLiteral("garbage.wav"));
        QFile file(garbage);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("RIFF\x10\x00\x00\x00WAVEjunkjunkjunkjunk", 28);
        file.close();
        AudioEngineController audio(std::make_unique<FileSource>(garbage));
        try {
            audio.start();
            QFAIL("no error for a corrupt file");
        } catch (const CollaboratorError& e) {
            QVERIFY2(e.localizedDescription().startsWith(QStringLiteral("Cannot read the audio file")),
                     qPrintable(e.localizedDescription()));
        }
        QVERIFY(!audio.isRunning());
        audio.stop();
    }

    void speechFromAFileRaisesTheLevelAndArrivesAt16kHz()
    {
        const QString speech = AudioTest::sandboxPath(QStringLiteral("speech.wav"));
        QVERIFY2(AudioTest::speak(QStringLiteral("Testing the microphone, one two three."), speech),
                 "espeak-ng is needed (scripts/setup.sh --test installs it)");
        auto* source = new FileSource(speech, FileSource::Pacing::asFastAsPossible);
        const AudioFormat input = source->inputFormat();
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        std::mutex mutex;
        float loudest = 0;
        long frames = 0;
        bool allAt16k = true;
        audio.onAmplitude = [&](float level) {
            std::lock_guard lock(mutex);
            loudest = std::max(loudest, level);
        };
        audio.onBuffer = [&](AudioBuffer buffer) {
            std::lock_guard lock(mutex);
            frames += buffer.frameCount();
            allAt16k = allAt16k && buffer.format == AudioFormat{16000, 1};
        };
        QSignalSpy finished(source, &FileSource::finished);
        TestSupport::LogMark mark;
        audio.start();
        QVERIFY(finished.wait(10000));
        audio.stop();
        std::lock_guard lock(mutex);
        QVERIFY(allAt16k);
        QVERIFY2(loudest > 0.3f, qPrintable(QString::number(loudest)));
        // espeak-ng speaks at 22050 Hz: about 16000/22050 of its frames come out, less the resampler's delay.
        QVERIFY(input.sampleRate > 16000);
        QVERIFY(frames > 16000);
        QVERIFY(mark.messages().contains(QStringLiteral("audio: input=%1.0Hz/1ch → target=16000.0Hz/1ch, converter=yes").arg(input.sampleRate)));
        QVERIFY(!mark.messages().filter(QStringLiteral("audio: peak amp ")).isEmpty());
    }

    void silenceKeepsTheLevelAtRest()
    {
        const QString path = AudioTest::sandboxPath(QStringLiteral("silence.wav"));
        QVERIFY(AudioTest::writeWav(path, AudioTest::constant({48000, 2}, 48000, 0.0f)));
        auto* source = new FileSource(path, FileSource::Pacing::asFastAsPossible);
        AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
        std::atomic<int> calls{0};
        std::atomic<bool> allZero{true};
        audio.onAmplitude = [&](float level) {
            ++calls;
            if (level != 0.0f)
                allZero = false;
        };
        QSignalSpy finished(source, &FileSource::finished);
        audio.start();
        QVERIFY(finished.wait(10000));
        audio.stop();
        QCOMPARE(calls.load(), 47 + 1);  // every block, then the rest level of stop()
        QVERIFY(allZero);
    }
};

QTEST_GUILESS_MAIN(FileSourceTest)
#include "FileSourceTest.moc"
