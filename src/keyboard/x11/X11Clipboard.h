#pragma once

#include "keyboard/ClipboardContent.h"

#include <QThread>

#include <optional>

// The CLIPBOARD selection, owned and served by Tolvane itself for a paste: what the clipboard held is
// kept (every format, within ClipboardContent's cap), the dictation goes on it, and the old content
// comes back when ClipboardRestore says so. Requests are answered on a thread and an X connection of
// their own, so a busy GUI thread delays no paste, and Tolvane's own windows (which ask through Qt on
// the GUI thread) can paste what it serves. Qt's QClipboard cannot do this: it tells nobody when a
// request for its content arrives or has been answered, and it re-maps targets to MIME types and
// back, which loses the exact targets and property types the previous owner offered.
// Public calls come from the GUI thread.
class X11Clipboard final {
public:
    X11Clipboard();
    ~X11Clipboard();
    X11Clipboard(const X11Clipboard&) = delete;
    X11Clipboard& operator=(const X11Clipboard&) = delete;

    // Keeps the clipboard's content and puts `text` on it; false when there is no X server or the
    // clipboard could not be taken. `ownContent` is the content when this process's Qt owns it.
    bool setForPaste(const QString& text, std::optional<ClipboardContent> ownContent);
    // The paste keystroke is about to go out: from now on a request for the text is the paste's.
    void keystrokeSending();

private:
    class Worker;
    QThread thread_;
    Worker* worker_ = nullptr;
};
