// Pauses between phrases, found in made-up audio: loud stretches standing for speech, hiss between.
#include "speech/PauseDetector.h"

#include <QTest>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

struct Piece {
    int ms;
    int peak;  // of a 220 Hz tone standing for speech; 0 for nothing but hiss
    int hiss = 8;  // the microphone's own noise, ± this much
};

std::vector<std::int16_t> audio(const std::vector<Piece>& pieces)
{
    std::vector<std::int16_t> out;
    std::uint32_t state = 1;
    for (const auto& [ms, peak, hiss] : pieces)
        for (int i = 0; i < ms * 16; ++i) {
            state = state * 1664525u + 1013904223u;
            const int noise = static_cast<int>(state >> 24) % (2 * hiss + 1) - hiss;
            out.push_back(static_cast<std::int16_t>(noise + peak * std::sin(2 * M_PI * 220 * static_cast<double>(out.size()) / 16000)));
        }
    return out;
}

// Where the detector reported pauses, in ms from the start, feeding it as the decoder is fed.
QList<int> pausesIn(const std::vector<std::int16_t>& samples)
{
    PauseDetector detector(std::chrono::milliseconds(150));
    QList<int> at;
    for (std::size_t i = 0; i < samples.size(); i += 341) {
        const std::size_t n = std::min<std::size_t>(341, samples.size() - i);
        if (detector.feed(samples.data() + i, n))
            at << static_cast<int>((i + n) / 16);
    }
    return at;
}

}  // namespace

class PauseDetectorTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void findsPausesLongEnough_data()
    {
        QTest::addColumn<std::vector<std::int16_t>>("samples");
        QTest::addColumn<QList<int>>("expected");  // ms, each within the 21 ms block it is found in
        QTest::newRow("one long pause") << audio({{300, 0}, {1000, 3000}, {300, 0}, {800, 3000}}) << QList<int>{1450};
        QTest::newRow("a gap within a word is no pause") << audio({{300, 0}, {1000, 3000}, {100, 0}, {800, 3000}}) << QList<int>{};
        QTest::newRow("each pause once, however long") << audio({{300, 0}, {600, 3000}, {900, 0}, {600, 3000}, {200, 0}, {400, 3000}})
                                                       << QList<int>{1050, 2550};
        QTest::newRow("speech from the first sample has no floor yet") << audio({{1500, 3000}}) << QList<int>{};
        QTest::newRow("quiet speaker, loud room")
            << audio({{300, 0, 120}, {1000, 300, 120}, {300, 0, 120}, {500, 300, 120}}) << QList<int>{};
        // The floor follows the room once the quiet start has left the two seconds it looks back on.
        QTest::newRow("the room gets louder")
            << audio({{300, 0}, {1000, 3000}, {2500, 0, 150}, {1000, 3000, 150}, {300, 0, 150}, {300, 3000, 150}})
            << QList<int>{2450, 4950};
    }
    void findsPausesLongEnough()
    {
        QFETCH(std::vector<std::int16_t>, samples);
        QFETCH(QList<int>, expected);
        const QList<int> found = pausesIn(samples);
        QCOMPARE(found.size(), expected.size());
        for (qsizetype i = 0; i < found.size(); ++i)
            QVERIFY2(std::abs(found[i] - expected[i]) <= 25, qPrintable(QStringLiteral("pause at %1 ms").arg(found[i])));
    }

};

QTEST_GUILESS_MAIN(PauseDetectorTest)
#include "PauseDetectorTest.moc"
