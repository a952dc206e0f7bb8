#include "speech/SpeechResultStream.h"

void SpeechResultStream::yield(SpeechResult result)
{
    {
        std::lock_guard lock(mutex_);
        if (ended_)
            return;
        queue_.push_back(std::move(result));
    }
    changed_.notify_all();
}

void SpeechResultStream::finish()
{
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
    }
    changed_.notify_all();
}

void SpeechResultStream::fail(const QString& description)
{
    {
        std::lock_guard lock(mutex_);
        if (ended_)
            return;
        ended_ = true;
        error_ = description;
    }
    changed_.notify_all();
}

void SpeechResultStream::cancel()
{
    {
        std::lock_guard lock(mutex_);
        cancelled_ = true;
    }
    changed_.notify_all();
}

SpeechResultStream::Next SpeechResultStream::next()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return cancelled_ || !queue_.empty() || ended_; });
    if (cancelled_)
        return {Event::cancelled, {}, {}};
    if (!queue_.empty()) {
        Next out{Event::result, std::move(queue_.front()), {}};
        queue_.pop_front();
        return out;
    }
    if (!error_.isEmpty())
        return {Event::failed, {}, error_};
    return {Event::ended, {}, {}};
}
