#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QTcpServer;
class QTcpSocket;

// A small real HTTP server on 127.0.0.1 for the servers Tolvane talks to; each fake routes the
// requests it receives and answers as a test needs, now, later, or when the test releases it.
// Runs on the thread that made it, so the test must let its event loop run while it waits.
class LoopbackHttpServer : public QObject {
    Q_OBJECT
public:
    struct Request {
        QByteArray method;
        QByteArray path;
        QMap<QByteArray, QByteArray> headers;  // names in lower case
        QByteArray body;
        QJsonObject json() const;
    };
    struct Response {
        int status = 200;
        QByteArray body;
        int delayMs = 0;  // answer this much later; held: only when releaseHeld() is called
        // More of the body after `body`, one piece whenever the last one has left, `paceMs` apart,
        // until it returns nothing. The answer then announces `length` (none when negative: the
        // body ends when the connection closes).
        std::function<QByteArray()> more;
        int paceMs = 0;
        qint64 length = -1;
    };
    static constexpr int held = -1;

    explicit LoopbackHttpServer(QObject* parent = nullptr);
    ~LoopbackHttpServer() override;

    bool listen();  // any free port on 127.0.0.1
    quint16 port() const;
    QString url(const QString& path) const;  // http://127.0.0.1:PORT + path
    // A loopback URL with `path` where nothing listens (connections are refused).
    static QString closedUrl(const QString& path);

    // A JSON error answer, shaped as the OpenAI-compatible API does.
    static Response error(int status, const QString& message);

    QList<Request> requests;  // every request received, in order
    // Sends every held answer, or the held answer `index` (in the order they were held).
    void releaseHeld();
    void releaseHeld(qsizetype index);

protected:
    // The answer to a request; none keeps the connection open and says nothing.
    virtual std::optional<Response> route(const Request& request) = 0;

private:
    void onConnection();
    void onReadable(QTcpSocket* socket);
    void respond(QTcpSocket* socket, const Response& response);

    QTcpServer* server_;
    QList<std::function<void()>> held_;  // a sent one is left empty, so indexes stay
};
