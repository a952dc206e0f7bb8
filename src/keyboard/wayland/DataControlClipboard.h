#pragma once

#include "keyboard/ClipboardContent.h"

#include <QObject>

#include <memory>
#include <optional>

class WaylandConnection;

// The clipboard of a Wayland session, lent to a paste through a data-control protocol, which lets a
// client without a focused window read and set the selection: every format it held is kept (within
// ClipboardContent's cap), the dictation goes on it, and the old content comes back when
// ClipboardRestore says so, never over a newer copy. The standard ext_data_control_manager_v1 is
// used where offered, zwlr_data_control_manager_v1 otherwise; both have the same messages, so one
// implementation (a template over the generated names, in the .cpp) serves them.
// GUI thread; the bytes of an answer are written on a thread of their own, so a slow reader holds
// up nothing.
class DataControlClipboard : public QObject {
    Q_OBJECT
public:
    // How long one format of the previous clipboard may take to arrive.
    static constexpr int readTimeoutMs = 1000;

    // Null when the compositor offers neither protocol.
    static std::unique_ptr<DataControlClipboard> create(WaylandConnection& connection);

    // The manager interface in use, for the start-up log line.
    virtual const char* protocol() const = 0;
    // Keeps the clipboard's content and puts `text` on it; false when the compositor is gone.
    // `ownContent` is the content when this process's Qt owns the clipboard (it would wait on us).
    virtual bool setForPaste(const QString& text, std::optional<ClipboardContent> ownContent) = 0;
    // The paste keystroke has gone out.
    virtual void keystrokeSent() = 0;

protected:
    DataControlClipboard() = default;
};
