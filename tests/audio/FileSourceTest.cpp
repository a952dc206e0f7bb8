#include "audio/FileSource.h"

#include "support/Sound.h"

#include <QSignalSpy>
#include <QTest>

#include <mutex>

namespace {

// What a source delivered, gathered on its audio thread.
struct Received {
    std::mutex mutex;
    std::vector<AudioBuffer> blocks;

    CaptureSource::BlockHandler handler()
    {
        return [this](const AudioBuffer& block) {
            std::lock_guard lock(mutex);
            blocks.push_back(block);
        };
    }
};

}  // namespace

class FileSourceTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void deliversTheWholeFileIn1024FrameBlocks()
    {
        const AudioFormat format{22050, 2};
        const AudioBuffer tone = AudioTest::sine(format, 2500, 440, 0.5f);
        const QString path = AudioTest::sandboxPath(QStringLiteral("tone.wav"));
        QVERIFY(AudioTest::writeWav(path, tone));
        FileSource source(path, FileSource::Pacing::asFastAsPossible);
        QCOMPARE(source.inputFormat(), format);
        QSignalSpy finished(&source, &FileSource::finished);
        Received got;
        source.start(got.handler());
        QVERIFY(finished.wait(10000));
        source.stop();
        std::vector<int> sizes;
        std::vector<float> samples;
        for (const AudioBuffer& b : got.blocks) {
            QCOMPARE(b.format, format);
            sizes.push_back(b.frameCount());
            samples.insert(samples.end(), b.samples.begin(), b.samples.end());
        }
        QCOMPARE(sizes, (std::vector<int>{1024, 1024, 452}));
        for (std::size_t i = 0; i < samples.size(); ++i)
            QVERIFY(std::abs(samples[i] - tone.samples[i]) < 1e-3f);  // 16-bit file
    }

};

QTEST_GUILESS_MAIN(FileSourceTest)
#include "FileSourceTest.moc"
