#include "support/TestSupport.h"

#include "storage/Diagnostics.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>
#include <QThread>

#include <qcoro/qcorotask.h>

namespace TestSupport {

QStringList logLines()
{
    Diagnostics::flush();
    QFile file(Diagnostics::logFilePath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QStringList logMessages()
{
    static const QRegularExpression prefix(QStringLiteral(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[[^\]]+:\d+\] )"));
    QStringList out;
    for (QString line : logLines())
        out << line.remove(prefix);
    return out;
}

LogMark::LogMark() : start_(logMessages().size()) {}

QStringList LogMark::messages() const { return logMessages().mid(start_); }

bool waitUntil(const std::function<bool()>& pred, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!pred()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

void run(QCoro::Task<> task)
{
    bool done = false;
    auto wrapper = [](QCoro::Task<> t, bool& flag) -> QCoro::Task<> {
        co_await t;
        flag = true;
    };
    auto pending = wrapper(std::move(task), done);
    waitUntil([&] { return done; }, 30000);
}

}  // namespace TestSupport
