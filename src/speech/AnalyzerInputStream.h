#pragma once

#include "core/AudioBuffer.h"
#include "core/Collaborators.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>

// A session's audio input: an unbounded queue written from the audio thread and read by the
// analyzer's decoding thread. Writers never take a lock and never wait for the reader, so a slow
// recognizer can never hold up capture; the reader sleeps on a futex until there is work.
class AnalyzerInputStream {
public:
    AnalyzerInputStream() = default;
    ~AnalyzerInputStream();
    AnalyzerInputStream(const AnalyzerInputStream&) = delete;
    AnalyzerInputStream& operator=(const AnalyzerInputStream&) = delete;

    // The writing end handed to the buffer route. Dropping the last reference ends the stream, so an
    // abandoned session's input cannot keep its reader waiting forever.
    class Continuation final : public AudioInputStream {
    public:
        explicit Continuation(std::shared_ptr<AnalyzerInputStream> stream) : stream_(std::move(stream)) {}
        ~Continuation() override { stream_->finish(); }
        void yield(AudioBuffer buffer) override { stream_->yield(std::move(buffer)); }
        void finish() { stream_->finish(); }

    private:
        std::shared_ptr<AnalyzerInputStream> stream_;
    };

    // Writer side, any thread. A buffer yielded after finish() is dropped.
    void yield(AudioBuffer buffer);
    void finish();

    // Reader side, one thread only.
    enum class Next { buffer, ended, interrupted };
    Next next(AudioBuffer& out);  // waits for a buffer, the end of the stream or interrupt()
    bool hasPending();            // a buffer is ready without waiting

    // Wakes the reader once (next() then reports interrupted). Any thread.
    void interrupt();

private:
    struct Node {
        AudioBuffer buffer;
        Node* next = nullptr;
    };
    void wake();
    void collect();  // moves what writers pushed into pending_, oldest first

    std::atomic<Node*> head_{nullptr};  // newest first, pushed by writers
    std::atomic<bool> finished_{false};
    std::atomic<bool> interrupted_{false};
    std::atomic<std::uint32_t> signal_{0};
    std::deque<AudioBuffer> pending_;  // reader only
};
