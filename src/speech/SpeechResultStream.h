#pragma once

#include <QString>

#include <condition_variable>
#include <deque>
#include <mutex>

// One recognition result: volatile results are hypotheses that later results replace; a final
// result is committed.
struct SpeechResult {
    QString text;
    bool isFinal = false;

    bool operator==(const SpeechResult&) const = default;
};

// The sequence of a session's results, from the engine's decoding thread to the results loop.
// It ends normally (finish), with an error (fail), or is cancelled by its consumer.
class SpeechResultStream {
public:
    // Producer side.
    void yield(SpeechResult result);
    void finish();
    void fail(const QString& description);

    // Consumer side.
    enum class Event { result, ended, failed, cancelled };
    struct Next {
        Event event = Event::ended;
        SpeechResult result;
        QString error;
    };
    Next next();    // waits for the next result or the end
    void cancel();  // the consumer gives up: next() reports cancelled from now on

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<SpeechResult> queue_;
    bool ended_ = false;
    bool cancelled_ = false;
    QString error_;
};
