#pragma once

#include <QLocalServer>
#include <QObject>

#include <functional>

// One Tolvane per user session. A second launch tells the running one what was asked of it (come
// forward and show Settings, or quit) and exits.
class SingleInstance final : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);

    enum class Request { reopen, quit };

    // True when another instance answered and was given the request.
    bool notifyRunningInstance(Request request = Request::reopen);
    // Becomes the instance others talk to; onRequest runs for each later launch.
    bool listen(std::function<void(Request)> onRequest);

    static QString serverName();

private:
    QLocalServer server_;
    std::function<void(Request)> onRequest_;
};
