#include "keyboard/ClipboardRestore.h"

#include <algorithm>

void ClipboardRestore::dictationSet(ClipboardContent previous)
{
    if (!saved_)
        saved_ = std::move(previous);
    // Each paste gets its own wait: the earlier one's request may have been this one's.
    deadline_.reset();
    answeredAt_.reset();
}

void ClipboardRestore::keystrokeSent(Clock::time_point now)
{
    if (saved_)
        deadline_ = now + noRequestLimit;
}

void ClipboardRestore::abandon()
{
    saved_.reset();
    deadline_.reset();
    answeredAt_.reset();
}

void ClipboardRestore::requestAnswered(const QByteArray& mimeType, Clock::time_point now)
{
    // Clipboard managers ask for the hint (and every client for TARGETS) before deciding anything:
    // only a request for the text itself is the paste.
    if (saved_ && deadline_ && !answeredAt_ && ClipboardContent::isPlainText(mimeType))
        answeredAt_ = now;
}

void ClipboardRestore::ownerChanged() { abandon(); }

std::optional<ClipboardRestore::Clock::time_point> ClipboardRestore::wakeAt() const
{
    if (!saved_ || !deadline_)
        return std::nullopt;
    return answeredAt_ ? std::min(*deadline_, *answeredAt_ + afterAnswer) : *deadline_;
}

ClipboardRestore::Due ClipboardRestore::due(Clock::time_point now) const
{
    const auto at = wakeAt();
    if (!at || now < *at)
        return Due::notYet;
    return answeredAt_ ? Due::answered : Due::noRequest;
}

ClipboardContent ClipboardRestore::take()
{
    ClipboardContent c = saved_.value_or(ClipboardContent());
    abandon();
    return c;
}
