#include "support/FakeLlmServer.h"

#include "storage/Preferences.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace {
const char* const bufferProperty = "fakeLlmBuffer";
}  // namespace

QJsonObject FakeLlmServer::Request::json() const { return QJsonDocument::fromJson(body).object(); }

FakeLlmServer::FakeLlmServer(QObject* parent) : QObject(parent), server_(new QTcpServer(this))
{
    chat = [](const QJsonObject&) { return answer(QStringLiteral("cleaned text")); };
    connect(server_, &QTcpServer::newConnection, this, &FakeLlmServer::onConnection);
}

FakeLlmServer::~FakeLlmServer() = default;

bool FakeLlmServer::listen() { return server_->listen(QHostAddress::LocalHost, 0); }

void FakeLlmServer::configureCleanup() const
{
    Preferences& p = Preferences::shared();
    p.setValue(Settings::llmEndpoint, endpoint());
    p.setValue(Settings::llmModel, QString());
    p.setValue(Settings::llmAllowRemote, false);
}

quint16 FakeLlmServer::port() const { return server_->serverPort(); }

QString FakeLlmServer::endpoint() const { return QStringLiteral("http://127.0.0.1:%1/v1").arg(port()); }

QString FakeLlmServer::closedEndpoint()
{
    // Bind a free port, then let it go: nothing listens there right after.
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return QStringLiteral("http://127.0.0.1:%1/v1").arg(port);
}

FakeLlmServer::Response FakeLlmServer::answer(const QString& content, int delayMs)
{
    const QJsonObject message{{QStringLiteral("role"), QStringLiteral("assistant")}, {QStringLiteral("content"), content}};
    const QJsonObject choice{{QStringLiteral("index"), 0}, {QStringLiteral("message"), message},
                             {QStringLiteral("finish_reason"), QStringLiteral("stop")}};
    const QJsonObject body{{QStringLiteral("object"), QStringLiteral("chat.completion")},
                           {QStringLiteral("choices"), QJsonArray{choice}}};
    return Response{200, QJsonDocument(body).toJson(QJsonDocument::Compact), delayMs};
}

FakeLlmServer::Response FakeLlmServer::error(int status, const QString& message)
{
    const QJsonObject body{{QStringLiteral("error"), QJsonObject{{QStringLiteral("message"), message}}}};
    return Response{status, QJsonDocument(body).toJson(QJsonDocument::Compact), 0};
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

void FakeLlmServer::releaseHeld()
{
    const auto pending = std::exchange(held_, {});
    for (const auto& send : pending)
        send();
}

void FakeLlmServer::onConnection()
{
    while (QTcpSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadable(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void FakeLlmServer::onReadable(QTcpSocket* socket)
{
    QByteArray buffer = socket->property(bufferProperty).toByteArray() + socket->readAll();
    socket->setProperty(bufferProperty, buffer);
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    qsizetype length = 0;
    for (const QByteArray& line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == "content-length")
            length = line.mid(colon + 1).trimmed().toLongLong();
    }
    if (buffer.size() < headerEnd + 4 + length)
        return;  // the body is still on its way
    socket->setProperty(bufferProperty, QByteArray());

    Request request{requestLine.value(0), requestLine.value(1), buffer.mid(headerEnd + 4, length)};
    requests << request;
    if (request.method == "GET" && request.path == "/v1/models") {
        if (!answerModelList)
            return;  // keep the connection open and say nothing
        QJsonArray data;
        for (const QString& id : std::as_const(models))
            data.append(QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("object"), QStringLiteral("model")}});
        const QJsonObject body{{QStringLiteral("object"), QStringLiteral("list")}, {QStringLiteral("data"), data}};
        if (modelsStatus != 200)
            respond(socket, error(modelsStatus, QStringLiteral("models are not ready")));
        else
            respond(socket, Response{200, QJsonDocument(body).toJson(QJsonDocument::Compact), 0});
    } else if (request.method == "POST" && request.path == "/v1/chat/completions") {
        respond(socket, chat(request.json()));
    } else {
        respond(socket, error(404, QStringLiteral("no such route")));
    }
}

void FakeLlmServer::respond(QTcpSocket* socket, const Response& response)
{
    QPointer<QTcpSocket> guarded(socket);
    auto send = [guarded, response] {
        if (!guarded)
            return;
        // The reason phrase is not read by clients; the status code is.
        QByteArray bytes = "HTTP/1.1 " + QByteArray::number(response.status) + (response.status == 200 ? " OK" : " Error")
                           + "\r\nContent-Type: application/json\r\nContent-Length: "
                           + QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body;
        guarded->write(bytes);
        guarded->disconnectFromHost();
    };
    if (response.delayMs == held)
        held_ << send;
    else if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, socket, send);
    else
        send();
}
