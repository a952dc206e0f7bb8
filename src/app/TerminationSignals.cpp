#include "app/TerminationSignals.h"

#include "storage/Diagnostics.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TerminationSignals {
namespace {

constexpr int handled[] = {SIGTERM, SIGINT, SIGHUP};
int pipeEnds[2] = {-1, -1};

// Only what is safe in a signal handler: the signal's number goes to the event loop.
extern "C" void onSignal(int signal)
{
    const int saved = errno;
    const unsigned char number = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], &number, 1);
    errno = saved;
}

void handleWith(void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : handled)
        sigaction(signal, &action, nullptr);
}

}  // namespace

void install()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pipeEnds) != 0) {
        Diagnostics::log(QStringLiteral("bootstrap: cannot watch for SIGTERM (%1); it ends Tolvane at once")
                             .arg(QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    ::fcntl(pipeEnds[1], F_SETFL, O_NONBLOCK);  // a handler never blocks on a full pipe
    auto* notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier] {
        unsigned char number = 0;
        if (::read(pipeEnds[0], &number, 1) != 1)
            return;
        notifier->setEnabled(false);
        handleWith(SIG_DFL);
        Diagnostics::log(QStringLiteral("bootstrap: %1 received — Tolvane quits").arg(QString::fromLatin1(sigabbrev_np(number))
                                                                                          .prepend(QStringLiteral("SIG"))));
        QCoreApplication::quit();
    });
    handleWith(onSignal);
}

}  // namespace TerminationSignals
