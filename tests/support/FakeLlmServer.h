#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

class QTcpServer;
class QTcpSocket;

// A small real HTTP server on 127.0.0.1 that speaks the two routes of the OpenAI-compatible API
// that cleanup uses (GET /v1/models, POST /v1/chat/completions) and answers as a test needs.
// Runs on the thread that made it, so the test must let its event loop run while it waits.
class FakeLlmServer final : public QObject {
    Q_OBJECT
public:
    struct Request {
        QByteArray method;
        QByteArray path;
        QByteArray body;
        QJsonObject json() const;
    };
    struct Response {
        int status = 200;
        QByteArray body;
        int delayMs = 0;  // answer this much later; held: only when releaseHeld() is called
    };
    static constexpr int held = -1;

    explicit FakeLlmServer(QObject* parent = nullptr);
    ~FakeLlmServer() override;

    bool listen();              // any free port on 127.0.0.1
    // Makes this server the one cleanup uses: its endpoint, the first listed model, loopback only.
    void configureCleanup() const;
    quint16 port() const;
    QString endpoint() const;   // http://127.0.0.1:PORT/v1
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
    static Response error(int status, const QString& message);

    QList<Request> requests;  // every request received, in order
    QList<Request> chatRequests() const;
    // Sends every held answer.
    void releaseHeld();

private:
    void onConnection();
    void onReadable(QTcpSocket* socket);
    void respond(QTcpSocket* socket, const Response& response);

    QTcpServer* server_;
    QList<std::function<void()>> held_;
};
