#pragma once

#include <QLocalServer>
#include <QObject>

#include <functional>

// One Tolvane per user session. A second launch tells the running one to come forward (it shows
// Settings) and exits.
class SingleInstance final : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);

    // True when another instance answered and was asked to show itself.
    bool notifyRunningInstance();
    // Becomes the instance others talk to; onReopen runs for each later launch.
    bool listen(std::function<void()> onReopen);

    static QString serverName();

private:
    QLocalServer server_;
    std::function<void()> onReopen_;
};
