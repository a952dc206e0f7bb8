#pragma once

#include "keyboard/ClipboardContent.h"

#include <QByteArray>

#include <chrono>
#include <optional>

// When a clipboard borrowed for a paste gets its previous content back. The paste keystroke makes
// the focused application ask for the clipboard, sooner or later: the old content comes back shortly
// after the first request for the dictation's text has been answered, or after noRequestLimit when
// none comes. A copy made meanwhile by anyone else is never overwritten. A second paste before the
// restore keeps the content from before the first. Display-free: each clipboard backend feeds it what
// its display reports and asks it when to act.
class ClipboardRestore {
public:
    using Clock = std::chrono::steady_clock;
    // Room for the application to ask for a second format of the same paste.
    static constexpr std::chrono::milliseconds afterAnswer{200};
    static constexpr std::chrono::milliseconds noRequestLimit{2000};

    enum class Due { notYet, answered, noRequest };

    // Whether the clipboard holds the user's own content now, to be kept before a paste borrows it
    // (not so while an earlier paste's restore is pending: it holds that dictation).
    bool needsSnapshot() const { return !saved_; }
    // The dictation is on the clipboard; `previous` is what it held (ignored when no snapshot was needed).
    void dictationSet(ClipboardContent previous);
    // The paste keystroke has gone out.
    void keystrokeSent(Clock::time_point now);
    // The paste could not be made: the dictation stays, nothing comes back.
    void abandon();
    // A request for `mimeType` has been answered with the dictation.
    void requestAnswered(const QByteArray& mimeType, Clock::time_point now);
    // Someone else owns the clipboard now: what they put there stays.
    void ownerChanged();

    bool pending() const { return saved_.has_value(); }
    // When to ask due() next; nothing while no restore is pending or the keystroke has not gone out.
    std::optional<Clock::time_point> wakeAt() const;
    Due due(Clock::time_point now) const;
    // The content to put back; nothing is pending afterwards.
    ClipboardContent take();

private:
    std::optional<ClipboardContent> saved_;
    std::optional<Clock::time_point> deadline_;
    std::optional<Clock::time_point> answeredAt_;
};
