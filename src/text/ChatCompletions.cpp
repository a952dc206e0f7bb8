#include "text/ChatCompletions.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace ChatCompletions {

namespace {
std::optional<QJsonObject> parseObject(const QByteArray& body)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    return doc.object();
}
}  // namespace

QString normalizedEndpoint(const QString& endpoint)
{
    QString s = endpoint.trimmed();
    while (s.endsWith(QLatin1Char('/')))
        s.chop(1);
    return s;
}

bool isLoopback(const QUrl& url)
{
    const QString host = url.host();
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

QByteArray requestBody(const QString& model, const QString& instructions, const QString& prompt)
{
    const QJsonArray messages = {
        QJsonObject{{QStringLiteral("role"), QStringLiteral("system")}, {QStringLiteral("content"), instructions}},
        QJsonObject{{QStringLiteral("role"), QStringLiteral("user")}, {QStringLiteral("content"), prompt}},
    };
    const QJsonObject body{
        {QStringLiteral("model"), model},
        {QStringLiteral("messages"), messages},
        {QStringLiteral("temperature"), 0.2},
        {QStringLiteral("stream"), false},
    };
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

std::optional<QStringList> modelIds(const QByteArray& body)
{
    const auto o = parseObject(body);
    if (!o || !o->value(QLatin1String("data")).isArray())
        return std::nullopt;
    QStringList ids;
    for (const QJsonValue& v : o->value(QLatin1String("data")).toArray()) {
        const QString id = v.toObject().value(QLatin1String("id")).toString();
        if (!id.isEmpty())
            ids << id;
    }
    return ids;
}

std::optional<QString> answerContent(const QByteArray& body)
{
    const auto o = parseObject(body);
    if (!o)
        return std::nullopt;
    const QJsonValue content = o->value(QLatin1String("choices"))
                                   .toArray()
                                   .at(0)
                                   .toObject()
                                   .value(QLatin1String("message"))
                                   .toObject()
                                   .value(QLatin1String("content"));
    if (!content.isString())
        return std::nullopt;
    return content.toString();
}

QString errorMessage(const QByteArray& body)
{
    const auto o = parseObject(body);
    if (!o)
        return {};
    const QJsonValue error = o->value(QLatin1String("error"));
    if (error.isString())
        return error.toString();
    return error.toObject().value(QLatin1String("message")).toString();
}

}  // namespace ChatCompletions
