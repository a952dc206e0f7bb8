#include "speech/AnalyzerInputStream.h"

AnalyzerInputStream::~AnalyzerInputStream()
{
    Node* node = head_.exchange(nullptr);
    while (node) {
        Node* next = node->next;
        delete node;
        node = next;
    }
}

void AnalyzerInputStream::yield(AudioBuffer buffer)
{
    if (finished_.load(std::memory_order_acquire))
        return;
    auto* node = new Node{std::move(buffer), head_.load(std::memory_order_relaxed)};
    while (!head_.compare_exchange_weak(node->next, node, std::memory_order_release, std::memory_order_relaxed)) {
    }
    wake();
}

void AnalyzerInputStream::finish()
{
    if (!finished_.exchange(true, std::memory_order_acq_rel))
        wake();
}

void AnalyzerInputStream::interrupt()
{
    interrupted_.store(true, std::memory_order_release);
    wake();
}

void AnalyzerInputStream::wake()
{
    signal_.fetch_add(1, std::memory_order_release);
    signal_.notify_one();
}

void AnalyzerInputStream::collect()
{
    Node* node = head_.exchange(nullptr, std::memory_order_acquire);
    // The list is newest first: insert each in front of the ones collected in this round.
    const auto insertAt = pending_.size();
    while (node) {
        pending_.insert(pending_.begin() + static_cast<std::ptrdiff_t>(insertAt), std::move(node->buffer));
        Node* next = node->next;
        delete node;
        node = next;
    }
}

bool AnalyzerInputStream::hasPending()
{
    if (pending_.empty())
        collect();
    return !pending_.empty();
}

AnalyzerInputStream::Next AnalyzerInputStream::next(AudioBuffer& out)
{
    for (;;) {
        // Read the signal before looking, so a wake-up between the look and the wait is not lost.
        const std::uint32_t seen = signal_.load(std::memory_order_acquire);
        if (hasPending()) {
            out = std::move(pending_.front());
            pending_.pop_front();
            return Next::buffer;
        }
        if (interrupted_.exchange(false, std::memory_order_acq_rel))
            return Next::interrupted;
        if (finished_.load(std::memory_order_acquire)) {
            if (hasPending())
                continue;
            return Next::ended;
        }
        signal_.wait(seen, std::memory_order_acquire);
    }
}
