#pragma once

// Helpers shared by the speech tests: running a coroutine to its end on the event loop, and
// synthesised speech.

#include "support/TestSupport.h"

#include <QString>

#include <qcoro/qcorotask.h>

#include <exception>
#include <optional>
#include <stdexcept>
#include <vector>

namespace SpeechTest {

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
    TestSupport::run(wrap(std::move(task), value, error, done));
    if (error)
        std::rethrow_exception(error);
    if (!done)
        throw std::runtime_error("task did not finish in time");
    return std::move(*value);
}

void await(QCoro::Task<void> task);

// Speech for `text` in festival's HTS voice, as 16 kHz mono float samples (empty when festival or
// sox is missing). `rate`/`channels` pick another output format; the file is written to `wavPath`
// when given.
std::vector<float> synthesize(const QString& text, const QString& wavPath = QString(), int rate = 16000, int channels = 1);

// Lower-case words without punctuation.
QStringList words(const QString& text);
// How many of `expected`'s words appear in `actual`, in order (longest common subsequence).
int wordsInOrder(const QStringList& expected, const QStringList& actual);

}  // namespace SpeechTest
