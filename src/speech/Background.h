#pragma once

#include <QFuture>
#include <QPromise>
#include <QThreadPool>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

// Blocking speech work (model loading, finalizing, results loops) runs on a pool of its own, so a
// long wait never starves Qt's global pool, and the awaiting coroutine resumes on its own thread.
namespace Background {

QThreadPool& pool();

// Starts `work` on the pool; the future finishes, with what it threw, once it has run. Whoever
// awaits it on the thread that started it reads what the work left behind after finished().
QFuture<void> start(std::function<void()> work);

// Awaits `future` from start() and takes in what its work did.
QCoro::Task<void> finished(QFuture<void> future);

template <typename R>
struct Outcome {
    std::optional<R> value;
    std::exception_ptr error;
};
template <>
struct Outcome<void> {
    std::exception_ptr error;
};

// The coroutine half takes nothing but the future and where the work leaves its outcome: GCC 12
// mishandles coroutine parameters with captured state (it destroyed a moved lambda twice), so the
// work is started outside it.
template <typename R>
QCoro::Task<R> result(QFuture<void> done, std::shared_ptr<Outcome<R>> outcome)
{
    const QCoro::Task<void> finishing = finished(std::move(done));
    co_await finishing;
    if (outcome->error)
        std::rethrow_exception(outcome->error);
    if constexpr (!std::is_void_v<R>)
        co_return std::move(*outcome->value);
}

template <typename F>
auto run(F work) -> QCoro::Task<std::invoke_result_t<F>>
{
    using R = std::invoke_result_t<F>;
    auto outcome = std::make_shared<Outcome<R>>();
    QFuture<void> done = start([work = std::make_shared<F>(std::move(work)), outcome] {
        try {
            if constexpr (std::is_void_v<R>)
                (*work)();
            else
                outcome->value.emplace((*work)());
        } catch (...) {
            outcome->error = std::current_exception();
        }
    });
    return result<R>(std::move(done), std::move(outcome));
}

}  // namespace Background
