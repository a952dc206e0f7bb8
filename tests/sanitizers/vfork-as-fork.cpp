// Preloaded into every program of a ThreadSanitizer test run (tests/support/run-test.sh).
//
// QProcess starts its children with clone(CLONE_VM | CLONE_VFORK): the child runs in the parent's
// memory until it execs. ThreadSanitizer's clone interceptor then runs its after-fork reset of the
// child in that shared memory, that is, on the parent's own state, and the parent forgets what its
// threads had done before: accesses ordered by a hand-over made after the start were then reported
// as races. In a process running under ThreadSanitizer such a clone is made a plain fork here, which
// TSan handles in a memory of its own; every other clone, and every process without TSan, goes on as
// it would.

#include <dlfcn.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#ifndef CLONE_PIDFD
#define CLONE_PIDFD 0x1000
#endif

extern "C" int clone(int (*fn)(void*), void* stack, int flags, void* arg, ...)
{
    va_list more;
    va_start(more, arg);
    int* parentTid = va_arg(more, int*);
    void* tls = va_arg(more, void*);
    int* childTid = va_arg(more, int*);
    va_end(more);

    using Clone = int (*)(int (*)(void*), void*, int, void*, ...);
    static const Clone next = reinterpret_cast<Clone>(dlsym(RTLD_NEXT, "clone"));
    static const bool underTsan = dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr;
    constexpr int vfork = CLONE_VM | CLONE_VFORK;
    constexpr int exitSignal = 0xff;
    // Only the plain vfork-like start of a program: anything more asked of clone is left to it.
    if (!underTsan || (flags & vfork) != vfork || (flags & ~(vfork | CLONE_PIDFD | exitSignal)) != 0)
        return next(fn, stack, flags, arg, parentTid, tls, childTid);

    const pid_t pid = fork();
    if (pid == 0)
        _exit(fn(arg));
    if (pid < 0)
        return -1;
    if (flags & CLONE_PIDFD) {
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pidfd < 0)
            return -1;
        *parentTid = pidfd;
    }
    return pid;
}
