#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <map>

struct wl_display;
struct wl_registry;
struct wl_seat;
struct wl_keyboard;
struct ext_data_control_manager_v1;
struct zwp_virtual_keyboard_manager_v1;
struct zwlr_data_control_manager_v1;
struct zwlr_foreign_toplevel_manager_v1;
struct zwlr_foreign_toplevel_handle_v1;
class QSocketNotifier;

// Tolvane's own connection to the Wayland compositor (its windows go through Xwayland): the seat,
// the protocols typing and pasting use where the compositor offers them, the active window's app id
// (zwlr_foreign_toplevel_manager_v1) and the user's keymap (wl_keyboard.keymap). Events are read on
// the GUI thread as they arrive.
class WaylandConnection final : public QObject {
    Q_OBJECT
public:
    explicit WaylandConnection(QObject* parent = nullptr);
    ~WaylandConnection() override;

    // Connects to WAYLAND_DISPLAY and learns the globals; false (with the reason) when it cannot.
    bool open(QString* error);
    bool broken() const;

    wl_display* display() const { return display_; }
    wl_seat* seat() const { return seat_; }
    zwp_virtual_keyboard_manager_v1* virtualKeyboards() const { return virtualKeyboards_; }
    // The two clipboard protocols: the standard one and the wlroots one it grew from.
    ext_data_control_manager_v1* extDataControl() const { return extDataControl_; }
    zwlr_data_control_manager_v1* wlrDataControl() const { return wlrDataControl_; }
    bool knowsActiveWindow() const { return toplevels_ != nullptr; }
    // The app id of the window that has the focus; empty when none is known.
    QString activeAppId() const;
    // The keymap the compositor applies to keyboards (empty until it sent one).
    const QByteArray& userKeymap() const { return userKeymap_; }

    // Waits until the compositor has handled every request sent so far; false when the connection broke.
    bool roundtrip();
    // Sends what is queued; waits while the compositor's buffer is full.
    bool flush();

private:
    struct Toplevel {
        QString appId;
        bool activated = false;
        QString pendingAppId;
        bool pendingActivated = false;
    };
    void onReadable();

    static void onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version);
    static void onGlobalRemove(void* data, wl_registry* registry, uint32_t name);
    static void onSeatCapabilities(void* data, wl_seat* seat, uint32_t caps);
    static void onKeymap(void* data, wl_keyboard* keyboard, uint32_t format, int32_t fd, uint32_t size);
    static void onToplevel(void* data, zwlr_foreign_toplevel_manager_v1* manager, zwlr_foreign_toplevel_handle_v1* handle);

    wl_display* display_ = nullptr;
    wl_registry* registry_ = nullptr;
    wl_seat* seat_ = nullptr;
    wl_keyboard* keyboard_ = nullptr;
    zwp_virtual_keyboard_manager_v1* virtualKeyboards_ = nullptr;
    ext_data_control_manager_v1* extDataControl_ = nullptr;
    zwlr_data_control_manager_v1* wlrDataControl_ = nullptr;
    zwlr_foreign_toplevel_manager_v1* toplevels_ = nullptr;
    std::map<zwlr_foreign_toplevel_handle_v1*, Toplevel> windows_;
    QByteArray userKeymap_;
    QSocketNotifier* notifier_ = nullptr;
};
