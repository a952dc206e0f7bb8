#pragma once

// The harness every test shares: the diagnostic log, waiting on the event loop, coroutines run to
// their end, and the tolvane program run as a user runs it.

#include <QMap>
#include <QProcessEnvironment>
#include <QProcess>
#include <QString>
#include <QStringList>

#include "core/Collaborators.h"

#include <qcoro/qcorotask.h>

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>

namespace TestSupport {

// What the program logs once it listens for the key.
inline const QString readyLine = QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.");

// The diagnostic log's messages (timestamp and source stripped), after flushing it.
QStringList logMessages();
// Whole lines of the diagnostic log, after flushing it.
QStringList logLines();
// Lines logged from now on: remember where the log ends.
class LogMark {
public:
    LogMark();
    QStringList messages() const;  // messages logged since the mark
    // Runs the event loop until `message` has been logged since the mark.
    bool waitFor(const QString& message, int timeoutMs = 20000) const;

private:
    qsizetype start_;
};

// A file's bytes (none when it cannot be read); writing one, its folder made: false when it cannot.
QByteArray readFile(const QString& path);
bool writeFile(const QString& path, const QByteArray& bytes);

// Runs the event loop until pred() holds or timeoutMs passes; returns pred().
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 5000);

// Runs a task to completion on the event loop.
void run(QCoro::Task<> task);

// Runs the task on the event loop; returns its value or rethrows its exception.
template <typename T>
T await(QCoro::Task<T> task)
{
    std::optional<T> value;
    std::exception_ptr error;
    bool done = false;
    auto wrap = [](QCoro::Task<T> t, std::optional<T>& v, std::exception_ptr& e, bool& flag) -> QCoro::Task<> {
        try {
            v = co_await t;
        } catch (...) {
            e = std::current_exception();
        }
        flag = true;
    };
    run(wrap(std::move(task), value, error, done));
    if (error)
        std::rethrow_exception(error);
    if (!done)
        throw std::runtime_error("task did not finish in time");
    return std::move(*value);
}
void await(QCoro::Task<void> task);

// What the CollaboratorError the task ends with says; empty when it ends without one.
template <typename T>
QString thrown(QCoro::Task<T> task)
{
    try {
        await(std::move(task));
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return {};
}

// Ends a process politely, then firmly; nothing when it is not running.
void stop(QProcess& process);

// The test's own environment with `set` added (or replaced).
QProcessEnvironment environmentWith(const QMap<QString, QString>& set);

// One run of the tolvane program, started as from a shell.
struct Program {
    QStringList arguments;
    QByteArray input;                  // written to its standard input, which is then closed
    QMap<QString, QString> set;        // environment variables added to the test's own
    QStringList unset;                 // and removed from it
    QString workingDirectory;
    int timeoutMs = 60000;
};
struct ProgramRun {
    int exitCode = -1;  // -1 when it crashed or did not end in time
    QString out, err;
    QStringList outLines() const { return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    QStringList errLines() const { return err.split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
};
// The event loop runs meanwhile, so a server in the test's thread can answer the program.
ProgramRun runTolvane(const Program& program);
QString tolvaneBinary();

}  // namespace TestSupport
