#include "support/Speech.h"

#include "speech/ModelInventory.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace SpeechTest {

QString installedModel() { return ModelInventory().installedModelFolder(QStringLiteral("en-US")); }

std::vector<float> synthesize(const QString& text, const QString& wavPath, int rate, int channels)
{
    QTemporaryDir dir;
    const QString voice = dir.filePath(QStringLiteral("voice.wav"));
    QProcess festival;
    festival.start(QStringLiteral("text2wave"),
                   {QStringLiteral("-eval"), QStringLiteral("(voice_cmu_us_slt_arctic_hts)"), QStringLiteral("-o"), voice});
    if (!festival.waitForStarted())
        return {};
    festival.write(text.toUtf8());
    festival.closeWriteChannel();
    if (!festival.waitForFinished(120000) || festival.exitCode() != 0)
        return {};
    // Half a second of silence around the words, as a speaker leaves when pressing and releasing a key.
    const QString raw = dir.filePath(QStringLiteral("speech.raw"));
    const QString rateText = QString::number(rate);
    const QString channelText = QString::number(channels);
    if (!wavPath.isEmpty()) {
        if (QProcess::execute(QStringLiteral("sox"), {voice, QStringLiteral("-r"), rateText, QStringLiteral("-c"), channelText,
                                                      wavPath, QStringLiteral("pad"), QStringLiteral("0.3"), QStringLiteral("0.5")})
            != 0)
            return {};
    }
    if (QProcess::execute(QStringLiteral("sox"),
                          {voice, QStringLiteral("-t"), QStringLiteral("raw"), QStringLiteral("-e"), QStringLiteral("floating-point"),
                           QStringLiteral("-b"), QStringLiteral("32"), QStringLiteral("-r"), QStringLiteral("16000"), QStringLiteral("-c"),
                           QStringLiteral("1"), raw, QStringLiteral("pad"), QStringLiteral("0.3"), QStringLiteral("0.5")})
        != 0)
        return {};
    QFile file(raw);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    std::vector<float> samples(static_cast<size_t>(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}

std::vector<float> withoutSilence(const std::vector<float>& samples)
{
    auto loud = [](float v) { return std::abs(v) > 0.01f; };
    const auto first = std::find_if(samples.begin(), samples.end(), loud);
    const auto last = std::find_if(samples.rbegin(), samples.rend(), loud).base();
    return first < last ? std::vector<float>(first, last) : std::vector<float>();
}

QStringList words(const QString& text)
{
    static const QRegularExpression nonWord(QStringLiteral("[^a-z' ]"));
    return text.toLower().replace(nonWord, QStringLiteral(" ")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

int wordsInOrder(const QStringList& expected, const QStringList& actual)
{
    std::vector<std::vector<int>> lcs(static_cast<size_t>(expected.size()) + 1,
                                      std::vector<int>(static_cast<size_t>(actual.size()) + 1, 0));
    for (qsizetype i = 1; i <= expected.size(); ++i) {
        for (qsizetype j = 1; j <= actual.size(); ++j) {
            auto& cell = lcs[static_cast<size_t>(i)][static_cast<size_t>(j)];
            if (expected[i - 1] == actual[j - 1])
                cell = lcs[static_cast<size_t>(i - 1)][static_cast<size_t>(j - 1)] + 1;
            else
                cell = std::max(lcs[static_cast<size_t>(i - 1)][static_cast<size_t>(j)],
                                lcs[static_cast<size_t>(i)][static_cast<size_t>(j - 1)]);
        }
    }
    return lcs.back().back();
}

}  // namespace SpeechTest
