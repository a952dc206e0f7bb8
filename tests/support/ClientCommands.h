#pragma once

// The command channel of the harness's client programs: one command per line on standard input, one
// answer per line on standard output. Standard input closing ends the program.

#include <QByteArray>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <unistd.h>

namespace ClientCommands {

inline void answer(const QByteArray& line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// steady_clock is CLOCK_MONOTONIC here, the same clock in every process on the machine.
inline qint64 monotonicMicroseconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Calls `handle` with each command line, trimmed.
inline void onEachLine(QCoreApplication& app, std::function<void(const QByteArray&)> handle)
{
    auto* input = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &app);
    auto pending = std::make_shared<QByteArray>();
    QObject::connect(input, &QSocketNotifier::activated, &app, [&app, pending, handle = std::move(handle)] {
        char buf[4096];
        const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n <= 0) {
            app.quit();
            return;
        }
        pending->append(buf, n);
        qsizetype nl;
        while ((nl = pending->indexOf('\n')) >= 0) {
            const QByteArray line = pending->left(nl).trimmed();
            pending->remove(0, nl + 1);
            handle(line);
        }
    });
}

}  // namespace ClientCommands
