#include "support/FullDisk.h"

#include <QByteArray>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

FullDisk::FullDisk(long bytes)
{
    std::fflush(stderr);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        // Room for every line a test writes; beyond it lines are dropped rather than blocking.
        ::fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
        ::fcntl(fds[1], F_SETFL, O_NONBLOCK);
        savedStderr_ = ::dup(STDERR_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
        ::close(fds[1]);
        pipe_ = fds[0];
    }
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    savedLimit_[0] = saved.rlim_cur;
    savedLimit_[1] = saved.rlim_max;
    savedHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{static_cast<rlim_t>(bytes), saved.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

FullDisk::~FullDisk() { release(); }

QString FullDisk::release()
{
    if (pipe_ < 0)
        return {};
    const rlimit saved{savedLimit_[0], savedLimit_[1]};
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, savedHandler_);
    std::fflush(stderr);
    ::dup2(savedStderr_, STDERR_FILENO);
    ::close(savedStderr_);
    QByteArray out;
    char buffer[4096];
    ::fcntl(pipe_, F_SETFL, O_NONBLOCK);
    for (ssize_t n; (n = ::read(pipe_, buffer, sizeof buffer)) > 0;)
        out.append(buffer, n);
    ::close(pipe_);
    pipe_ = -1;
    return QString::fromUtf8(out);
}
