#include "support/LoopbackHttpServer.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <utility>

namespace {
const char* const bufferProperty = "loopbackHttpBuffer";

// Writes a body piece by piece, the next only once the last has left, so an endless or huge body
// costs the server no memory. Lives as long as its connection.
class BodyStream final : public QObject {
public:
    BodyStream(QTcpSocket* socket, std::function<QByteArray()> more, int paceMs)
        : QObject(socket), socket_(socket), more_(std::move(more)), paceMs_(paceMs)
    {
        connect(socket, &QTcpSocket::bytesWritten, this, [this] {
            if (socket_->bytesToWrite() == 0 && !std::exchange(scheduled_, true))
                QTimer::singleShot(paceMs_, this, &BodyStream::next);
        });
    }
    void next()
    {
        scheduled_ = false;
        const QByteArray piece = more_();
        if (piece.isEmpty())
            socket_->disconnectFromHost();
        else
            socket_->write(piece);
    }

private:
    QTcpSocket* socket_;
    std::function<QByteArray()> more_;
    int paceMs_;
    bool scheduled_ = false;
};
}  // namespace

QJsonObject LoopbackHttpServer::Request::json() const { return QJsonDocument::fromJson(body).object(); }

LoopbackHttpServer::LoopbackHttpServer(QObject* parent) : QObject(parent), server_(new QTcpServer(this))
{
    connect(server_, &QTcpServer::newConnection, this, &LoopbackHttpServer::onConnection);
}

LoopbackHttpServer::~LoopbackHttpServer() = default;

bool LoopbackHttpServer::listen() { return server_->listen(QHostAddress::LocalHost, 0); }

quint16 LoopbackHttpServer::port() const { return server_->serverPort(); }

QString LoopbackHttpServer::url(const QString& path) const { return QStringLiteral("http://127.0.0.1:%1").arg(port()) + path; }

QString LoopbackHttpServer::closedUrl(const QString& path)
{
    // Bind a free port, then let it go: nothing listens there right after.
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return QStringLiteral("http://127.0.0.1:%1").arg(port) + path;
}

LoopbackHttpServer::Response LoopbackHttpServer::error(int status, const QString& message)
{
    const QJsonObject body{{QStringLiteral("error"), QJsonObject{{QStringLiteral("message"), message}}}};
    return Response{status, QJsonDocument(body).toJson(QJsonDocument::Compact), 0};
}

void LoopbackHttpServer::releaseHeld()
{
    for (qsizetype i = 0; i < held_.size(); ++i)
        releaseHeld(i);
}

void LoopbackHttpServer::releaseHeld(qsizetype index)
{
    if (const auto send = std::exchange(held_[index], {}))
        send();
}

void LoopbackHttpServer::onConnection()
{
    while (QTcpSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadable(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void LoopbackHttpServer::onReadable(QTcpSocket* socket)
{
    QByteArray buffer = socket->property(bufferProperty).toByteArray() + socket->readAll();
    socket->setProperty(bufferProperty, buffer);
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    Request request{requestLine.value(0), requestLine.value(1), {}, {}};
    for (const QByteArray& line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
    }
    const qsizetype length = request.headers.value("content-length").toLongLong();
    if (buffer.size() < headerEnd + 4 + length)
        return;  // the body is still on its way
    socket->setProperty(bufferProperty, QByteArray());
    request.body = buffer.mid(headerEnd + 4, length);
    requests << request;
    if (const std::optional<Response> response = route(request))
        respond(socket, *response);
}

void LoopbackHttpServer::respond(QTcpSocket* socket, const Response& response)
{
    QPointer<QTcpSocket> guarded(socket);
    auto send = [guarded, response] {
        if (!guarded)
            return;
        // The reason phrase is not read by clients; the status code is.
        const qint64 length = response.more ? response.length : response.body.size();
        QByteArray bytes = "HTTP/1.1 " + QByteArray::number(response.status) + (response.status == 200 ? " OK" : " Error")
                           + "\r\nContent-Type: application/json\r\n"
                           + (length >= 0 ? "Content-Length: " + QByteArray::number(length) + "\r\n" : QByteArray())
                           + "Connection: close\r\n\r\n" + response.body;
        guarded->write(bytes);
        if (response.more)
            (new BodyStream(guarded, response.more, response.paceMs))->next();
        else
            guarded->disconnectFromHost();
    };
    if (response.delayMs == held)
        held_ << send;
    else if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, socket, send);
    else
        send();
}
