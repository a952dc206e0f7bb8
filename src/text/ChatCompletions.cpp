#include "text/ChatCompletions.h"

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

}  // namespace ChatCompletions
