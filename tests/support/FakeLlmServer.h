#pragma once

#include "support/LoopbackHttpServer.h"

#include <QStringList>

#include <functional>

// The loopback server speaking the two routes of the OpenAI-compatible API that cleanup uses
// (GET /v1/models, POST /v1/chat/completions), answering as a test needs.
class FakeLlmServer final : public LoopbackHttpServer {
    Q_OBJECT
public:
    explicit FakeLlmServer(QObject* parent = nullptr);

    // Makes this server the one cleanup uses: its endpoint, the first listed model, loopback only.
    void configureCleanup() const;
    QString endpoint() const;  // http://127.0.0.1:PORT/v1
    // A loopback endpoint where nothing listens (connections are refused).
    static QString closedEndpoint();

    // The model list. An empty list is answered as such.
    QStringList models{QStringLiteral("test-model")};
    bool answerModelList = true;  // false: take the connection and never answer
    int modelsStatus = 200;
    // Chat completions; the default answers "cleaned text".
    std::function<Response(const QJsonObject& request)> chat;

    // A chat answer carrying content, shaped as the API does.
    static Response answer(const QString& content, int delayMs = 0);

    QList<Request> chatRequests() const;

protected:
    std::optional<Response> route(const Request& request) override;
};
