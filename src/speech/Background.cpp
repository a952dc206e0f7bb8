#include "speech/Background.h"

#include "core/Handoff.h"

#include <QRunnable>

namespace Background {

QThreadPool& pool()
{
    static QThreadPool* const instance = [] {
        auto* p = new QThreadPool;
        p->setMaxThreadCount(16);
        p->setExpiryTimeout(30000);
        return p;
    }();
    return *instance;
}

namespace {

// The pool hands a job to one of its threads under a lock of its own, and reports its end to the
// awaiting thread through the future's: both are marked, so a job made whole here is the one its
// thread reads, and what it did is what the awaiting thread reads after it.
class Job final : public QRunnable {
public:
    explicit Job(std::function<void()> work) : work_(std::move(work)), awaiting_(QThread::currentThread())
    {
        promise_.start();
    }

    QFuture<void> future() { return promise_.future(); }

    void run() override
    {
        Handoff::received(&pool());
        try {
            work_();
        } catch (...) {
            promise_.setException(std::current_exception());
        }
        Handoff::sent(awaiting_);
        promise_.finish();
    }

private:
    std::function<void()> work_;
    QThread* const awaiting_;
    QPromise<void> promise_;
};

}  // namespace

QFuture<void> start(std::function<void()> work)
{
    auto* job = new Job(std::move(work));
    QFuture<void> future = job->future();
    Handoff::sent(&pool());
    pool().start(job);
    return future;
}

QCoro::Task<void> finished(QFuture<void> future)
{
    co_await future;
    Handoff::received(QThread::currentThread());
}

}  // namespace Background
