#pragma once

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

template <typename F>
auto run(F work) -> QCoro::Task<std::invoke_result_t<F>>
{
    using R = std::invoke_result_t<F>;
    if constexpr (std::is_void_v<R>) {
        const std::exception_ptr error = co_await QtConcurrent::run(&pool(), [work = std::move(work)]() mutable {
            try {
                work();
                return std::exception_ptr();
            } catch (...) {
                return std::current_exception();
            }
        });
        if (error)
            std::rethrow_exception(error);
    } else {
        using Outcome = std::pair<std::optional<R>, std::exception_ptr>;
        Outcome outcome = co_await QtConcurrent::run(&pool(), [work = std::move(work)]() mutable {
            try {
                return Outcome(work(), nullptr);
            } catch (...) {
                return Outcome(std::nullopt, std::current_exception());
            }
        });
        if (outcome.second)
            std::rethrow_exception(outcome.second);
        co_return std::move(*outcome.first);
    }
}

}  // namespace Background
