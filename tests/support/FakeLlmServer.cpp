#include "support/FakeLlmServer.h"

#include "storage/Preferences.h"

#include <QJsonArray>
#include <QJsonDocument>

FakeLlmServer::FakeLlmServer(QObject* parent) : LoopbackHttpServer(parent)
{
    chat = [](const QJsonObject&) { return answer(QStringLiteral("cleaned text")); };
}

void FakeLlmServer::configureCleanup() const
{
    Preferences& p = Preferences::shared();
    p.setValue(Settings::llmEndpoint, endpoint());
    p.setValue(Settings::llmModel, QString());
    p.setValue(Settings::llmAllowRemote, false);
}

QString FakeLlmServer::endpoint() const { return url(QStringLiteral("/v1")); }

QString FakeLlmServer::closedEndpoint() { return closedUrl(QStringLiteral("/v1")); }

FakeLlmServer::Response FakeLlmServer::answer(const QString& content, int delayMs)
{
    const QJsonObject message{{QStringLiteral("role"), QStringLiteral("assistant")}, {QStringLiteral("content"), content}};
    const QJsonObject choice{{QStringLiteral("index"), 0}, {QStringLiteral("message"), message},
                             {QStringLiteral("finish_reason"), QStringLiteral("stop")}};
    const QJsonObject body{{QStringLiteral("object"), QStringLiteral("chat.completion")},
                           {QStringLiteral("choices"), QJsonArray{choice}}};
    return Response{200, QJsonDocument(body).toJson(QJsonDocument::Compact), delayMs};
}

QList<FakeLlmServer::Request> FakeLlmServer::chatRequests() const
{
    QList<Request> out;
    for (const Request& r : requests) {
        if (r.path == "/v1/chat/completions")
            out << r;
    }
    return out;
}

std::optional<FakeLlmServer::Response> FakeLlmServer::route(const Request& request)
{
    if (request.method == "GET" && request.path == "/v1/models") {
        if (!answerModelList)
            return std::nullopt;  // keep the connection open and say nothing
        QJsonArray data;
        for (const QString& id : std::as_const(models))
            data.append(QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("object"), QStringLiteral("model")}});
        const QJsonObject body{{QStringLiteral("object"), QStringLiteral("list")}, {QStringLiteral("data"), data}};
        if (modelsStatus != 200)
            return error(modelsStatus, QStringLiteral("models are not ready"));
        return Response{200, QJsonDocument(body).toJson(QJsonDocument::Compact), 0};
    }
    if (request.method == "POST" && request.path == "/v1/chat/completions")
        return chat(request.json());
    return error(404, QStringLiteral("no such route"));
}
