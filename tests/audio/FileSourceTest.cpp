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

    void unpacedSilenceArrivesWholeWithoutWaitingAndKeepsTheLevelAtRest()
    {
        // Thirty seconds of audio within the ten-second wait: unpaced delivery ignores the clock.
        const QString path = AudioTest::sandboxPath(QStringLiteral("silence.wav"));
        QVERIFY(AudioTest::writeWav(path, AudioTest::constant({48000, 2}, 48000 * 30, 0.0f)));
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
        QCOMPARE(calls.load(), (48000 * 30 + 1023) / 1024 + 1);  // every block, then the rest level of stop()
        QVERIFY(allZero);
    }
};

QTEST_GUILESS_MAIN(FileSourceTest)
#include "FileSourceTest.moc"
