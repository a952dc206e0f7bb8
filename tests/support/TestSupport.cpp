#include "support/TestSupport.h"

#include "storage/Diagnostics.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>

#include <qcoro/qcorotask.h>

namespace TestSupport {

QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

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

bool LogMark::waitFor(const QString& message, int timeoutMs) const
{
    return waitUntil([&] { return messages().contains(message); }, timeoutMs);
}

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

namespace {
QCoro::Task<bool> finished(QCoro::Task<void> task)
{
    co_await task;
    co_return true;
}
}  // namespace

void await(QCoro::Task<void> task) { await(finished(std::move(task))); }

void stop(QProcess& process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(5000))
        process.kill();
    process.waitForFinished(5000);
}

QString tolvaneBinary() { return QStringLiteral(TOLVANE_BINARY); }

QProcessEnvironment environmentWith(const QMap<QString, QString>& set)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (auto it = set.begin(); it != set.end(); ++it)
        env.insert(it.key(), it.value());
    return env;
}

ProgramRun runTolvane(const Program& program)
{
    QProcess process;
    QProcessEnvironment env = environmentWith(program.set);
    for (const QString& name : program.unset)
        env.remove(name);
    process.setProcessEnvironment(env);
    if (!program.workingDirectory.isEmpty())
        process.setWorkingDirectory(program.workingDirectory);
    process.start(tolvaneBinary(), program.arguments);
    if (!process.waitForStarted())
        return {};
    process.write(program.input);
    process.closeWriteChannel();
    ProgramRun run;
    if (!waitUntil([&] { return process.state() == QProcess::NotRunning; }, program.timeoutMs)) {
        process.kill();
        process.waitForFinished();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        run.exitCode = process.exitCode();
    }
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

}  // namespace TestSupport
