#pragma once

#include <QFuture>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

// Blocking speech work (model loading, finalizing, results loops) runs on a pool of its own, so a
// long wait never starves Qt's global pool, and the awaiting coroutine resumes on its own thread.
namespace Background {

QThreadPool& pool();

template <typename R>
struct Outcome {
    std::optional<R> value;
    std::exception_ptr error;
};
template <>
struct Outcome<void> {
    std::exception_ptr error;
};

// The coroutine half takes nothing but the future: GCC 12 mishandles coroutine parameters with
// captured state (it destroyed a moved lambda twice), so the work is started outside it.
template <typename R>
QCoro::Task<R> result(QFuture<Outcome<R>> future)
{
    Outcome<R> outcome = co_await future;
    if (outcome.error)
        std::rethrow_exception(outcome.error);
    if constexpr (!std::is_void_v<R>)
        co_return std::move(*outcome.value);
}

template <typename F>
auto run(F work) -> QCoro::Task<std::invoke_result_t<F>>
{
    using R = std::invoke_result_t<F>;
    return result<R>(QtConcurrent::run(&pool(), [work = std::move(work)]() mutable {
        Outcome<R> outcome;
        try {
            if constexpr (std::is_void_v<R>)
                work();
            else
                outcome.value.emplace(work());
        } catch (...) {
            outcome.error = std::current_exception();
        }
        return outcome;
    }));
}

}  // namespace Background
