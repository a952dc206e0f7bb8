#pragma once

#include <chrono>
#include <deque>

// The key events Tolvane itself posts through XTest, so the key monitor does not mistake them for
// the user's: the injector's typing, its release of held modifiers, the tap neutraliser. The monitor
// sees every XTest event as a raw event, in posting order; an expected event that the server drops
// (a press of a key already down) is skipped when a later one arrives.
class SyntheticKeyLog {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds expiry{2000};

    void expect(unsigned keycode, bool press, Clock::time_point now = Clock::now());
    // True when the event was expected (it is then removed together with any older entries).
    bool consume(unsigned keycode, bool press, Clock::time_point now = Clock::now());
    void clear() { entries_.clear(); }
    bool empty() const { return entries_.empty(); }

private:
    struct Entry {
        unsigned keycode;
        bool press;
        Clock::time_point at;
    };
    std::deque<Entry> entries_;
};
