#pragma once

#include "keyboard/ClipboardContent.h"
#include "keyboard/ClipboardRestore.h"

#include <QObject>

#include <map>
#include <memory>
#include <optional>

class QTimer;
class WaylandConnection;
struct zwlr_data_control_device_v1;
struct zwlr_data_control_offer_v1;
struct zwlr_data_control_source_v1;

// The clipboard of a Wayland session, lent to a paste through the data-control protocol
// (zwlr_data_control_manager_v1), which lets a client without a focused window read and set the
// selection: every format it held is kept (within ClipboardContent's cap), the dictation goes on it,
// and the old content comes back when ClipboardRestore says so, never over a newer copy.
// GUI thread; the bytes of an answer are written on a thread of their own, so a slow reader holds
// up nothing.
class DataControlClipboard final : public QObject {
    Q_OBJECT
public:
    // How long one format of the previous clipboard may take to arrive.
    static constexpr int readTimeoutMs = 1000;

    // Null when the compositor does not offer the protocol.
    static std::unique_ptr<DataControlClipboard> create(WaylandConnection& connection);
    ~DataControlClipboard() override;

    // Keeps the clipboard's content and puts `text` on it; false when the compositor is gone.
    // `ownContent` is the content when this process's Qt owns the clipboard (it would wait on us).
    bool setForPaste(const QString& text, std::optional<ClipboardContent> ownContent);
    // The paste keystroke has gone out.
    void keystrokeSent();

private:
    struct Offer {
        QList<QByteArray> types;
    };
    DataControlClipboard(WaylandConnection& connection, zwlr_data_control_device_v1* device);
    ClipboardContent read(zwlr_data_control_offer_v1* offer);
    zwlr_data_control_source_v1* offerContent(const ClipboardContent& content);
    void onSend(zwlr_data_control_source_v1* source, const char* mimeType, int fd);
    void onCancelled(zwlr_data_control_source_v1* source);
    void schedule();
    void onTimer();

    WaylandConnection& connection_;
    zwlr_data_control_device_v1* device_;
    std::map<zwlr_data_control_offer_v1*, Offer> offers_;
    zwlr_data_control_offer_v1* selection_ = nullptr;
    std::map<zwlr_data_control_source_v1*, ClipboardContent> sources_;
    zwlr_data_control_source_v1* pasteSource_ = nullptr;
    zwlr_data_control_source_v1* restoredSource_ = nullptr;  // the user's content, served by us
    ClipboardRestore restore_;
    QTimer* timer_ = nullptr;
};
