#include "keyboard/SyntheticKeyLog.h"

void SyntheticKeyLog::expect(unsigned keycode, bool press, Clock::time_point now)
{
    while (!entries_.empty() && now - entries_.front().at > expiry)
        entries_.pop_front();
    entries_.push_back({keycode, press, now});
}

bool SyntheticKeyLog::consume(unsigned keycode, bool press, Clock::time_point now)
{
    while (!entries_.empty() && now - entries_.front().at > expiry)
        entries_.pop_front();
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->keycode == keycode && it->press == press) {
            entries_.erase(entries_.begin(), it + 1);
            return true;
        }
    }
    return false;
}
