#pragma once

// Work handed from one thread to another through Qt. Debian's Qt is not built with ThreadSanitizer:
// the locks inside its event queues, QSemaphore and QThread::wait are invisible to it, so every
// hand-over through them looked like a race. These calls state what Qt guarantees (what the sender
// did before posting happens before the work runs; a blocking call's work happens before the
// caller goes on) to ThreadSanitizer in a TSan build, and are nothing in any other build.

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <utility>

#if defined(__SANITIZE_THREAD__)
#define TOLVANE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOLVANE_TSAN 1
#endif
#endif
#ifdef TOLVANE_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace Handoff {

// Everything this thread did so far happens before what any thread does after received(channel).
// A channel is any address both sides know without reading what was handed over: the receiving
// QThread for its event queue, a pool for its jobs.
#ifdef TOLVANE_TSAN
inline void sent(const void* channel) { __tsan_release(const_cast<void*>(channel)); }
inline void received(const void* channel) { __tsan_acquire(const_cast<void*>(channel)); }
#else
inline void sent(const void*) {}
inline void received(const void*) {}
#endif

namespace detail {

// Work on its way through a Qt event queue. Qt moves it into the queue inside invokeMethod, with no
// way to act in between, so each move marks it sent (the last, Qt's, included). Running it first
// takes in what the sender did, and then marks the work done for the sender. Qt frees it on the
// receiving thread or, when the sender let go of it last, on the sending one; either way after
// taking in what was sent to that thread.
template <typename Work>
class Parcel {
public:
    Parcel(const QObject* receiver, Work work)
        : to_(receiver->thread()), from_(QThread::currentThread()), work_(std::move(work))
    {
        sent(to_);
    }
    Parcel(Parcel&& other) : to_(other.to_), from_(other.from_), work_(std::move(other.work_)) { sent(to_); }
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;
    Parcel& operator=(Parcel&&) = delete;
    ~Parcel() { received(QThread::currentThread()); }

    void operator()()
    {
        received(QThread::currentThread());
        work_();
        sent(from_);
    }

private:
    QThread* to_;
    QThread* from_;
    Work work_;
};

}  // namespace detail

// Runs `work` on `receiver`'s thread, from its event queue; returns at once. Nothing runs when
// there is no receiver (any more).
template <typename Work>
void post(QObject* receiver, Work work)
{
    if (!receiver)
        return;
    QMetaObject::invokeMethod(receiver, detail::Parcel(receiver, std::move(work)), Qt::QueuedConnection);
}

// Runs `work` on `receiver`'s thread (not this one) and waits until it has run.
template <typename Work>
void call(QObject* receiver, Work work)
{
    QMetaObject::invokeMethod(receiver, detail::Parcel(receiver, std::move(work)), Qt::BlockingQueuedConnection);
    received(QThread::currentThread());
}

}  // namespace Handoff
