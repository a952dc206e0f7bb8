#include "app/SingleInstance.h"

#include <QLocalSocket>
#include <QStandardPaths>

#include <unistd.h>

namespace {
constexpr int connectTimeoutMs = 500;
}  // namespace

SingleInstance::SingleInstance(QObject* parent) : QObject(parent)
{
    connect(&server_, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = server_.nextPendingConnection()) {
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                const QByteArray message = socket->readAll();
                socket->disconnectFromServer();
                if (!onRequest_)
                    return;
                if (message.startsWith("reopen"))
                    onRequest_(Request::reopen);
                else if (message.startsWith("quit"))
                    onRequest_(Request::quit);
            });
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
}

QString SingleInstance::serverName()
{
    // In the runtime folder, so each login session (and each test sandbox) has its own.
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    return runtime + QStringLiteral("/tolvane-%1.socket").arg(getuid());
}

bool SingleInstance::notifyRunningInstance(Request request)
{
    QLocalSocket socket;
    socket.connectToServer(serverName());
    if (!socket.waitForConnected(connectTimeoutMs))
        return false;
    socket.write(request == Request::quit ? "quit\n" : "reopen\n");
    socket.waitForBytesWritten(connectTimeoutMs);
    socket.waitForDisconnected(connectTimeoutMs);
    return true;
}

bool SingleInstance::listen(std::function<void(Request)> onRequest)
{
    onRequest_ = std::move(onRequest);
    if (server_.listen(serverName()))
        return true;
    // A socket left by a crashed instance: nobody answered on it, so take it over.
    QLocalServer::removeServer(serverName());
    return server_.listen(serverName());
}
