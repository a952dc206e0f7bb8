#include "speech/TranscriptionApi.h"

#include "core/LocalServer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>
#include <QtEndian>

namespace TranscriptionApi {

namespace {
const QLatin1String inference("/inference");
}  // namespace

Format formatOf(const QString& endpoint)
{
    return LocalServer::normalizedEndpoint(endpoint).endsWith(inference) ? Format::whisperCpp : Format::openAi;
}

QString requestUrl(const QString& endpoint)
{
    const QString base = LocalServer::normalizedEndpoint(endpoint);
    return formatOf(base) == Format::whisperCpp ? base : base + QStringLiteral("/audio/transcriptions");
}

QString probeUrl(const QString& endpoint)
{
    const QString base = LocalServer::normalizedEndpoint(endpoint);
    if (formatOf(base) == Format::openAi)
        return base + QStringLiteral("/models");
    // whisper.cpp's server answers GET / with its page; /inference takes only POST.
    return base.chopped(inference.size()) + QLatin1Char('/');
}

QList<Field> fields(Format format, const QString& model, const QString& language)
{
    QList<Field> out;
    if (format == Format::openAi && !model.isEmpty())
        out << Field{"model", model.toUtf8()};
    out << Field{"temperature", "0"} << Field{"response_format", "json"};
    if (!language.isEmpty())
        out << Field{"language", language.toUtf8()};
    return out;
}

QByteArray wav(const std::int16_t* samples, std::size_t count)
{
    constexpr quint32 rate = 16000;
    constexpr quint16 channels = 1, bits = 16, blockAlign = channels * bits / 8;
    const auto dataBytes = static_cast<quint32>(count * sizeof(std::int16_t));
    QByteArray out;
    out.reserve(44 + static_cast<qsizetype>(dataBytes));
    auto u32 = [&out](quint32 v) {
        const quint32 le = qToLittleEndian(v);
        out.append(reinterpret_cast<const char*>(&le), 4);
    };
    auto u16 = [&out](quint16 v) {
        const quint16 le = qToLittleEndian(v);
        out.append(reinterpret_cast<const char*>(&le), 2);
    };
    out.append("RIFF");
    u32(36 + dataBytes);
    out.append("WAVEfmt ");
    u32(16);
    u16(1);  // PCM
    u16(channels);
    u32(rate);
    u32(rate * blockAlign);
    u16(blockAlign);
    u16(bits);
    out.append("data");
    u32(dataBytes);
    for (std::size_t i = 0; i < count; ++i)
        u16(static_cast<quint16>(samples[i]));
    return out;
}

QString languageCode(const QString& locale)
{
    return locale.trimmed().section(QRegularExpression(QStringLiteral("[-_]")), 0, 0).toLower();
}

std::optional<QString> answerText(const QByteArray& body)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonValue text = doc.object().value(QLatin1String("text"));
    if (!text.isString())
        return std::nullopt;
    return text.toString().trimmed();
}

}  // namespace TranscriptionApi
