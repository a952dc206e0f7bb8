#pragma once

#include <QString>
#include <QStringList>

#include <qcoro/qcorotask.h>

#include <functional>

namespace TestSupport {

// The diagnostic log's messages (timestamp and source stripped), after flushing it.
QStringList logMessages();
// Whole lines of the diagnostic log, after flushing it.
QStringList logLines();
// Lines logged from now on: remember where the log ends.
class LogMark {
public:
    LogMark();
    QStringList messages() const;  // messages logged since the mark

private:
    qsizetype start_;
};

// Runs the event loop until pred() holds or timeoutMs passes; returns pred().
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 5000);

// Runs a task to completion on the event loop.
void run(QCoro::Task<> task);

}  // namespace TestSupport
