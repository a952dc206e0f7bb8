#pragma once

#include "keyboard/OwnKeymap.h"
#include "keyboard/wayland/WaylandTyper.h"

#include <QElapsedTimer>

#include <optional>

class WaylandConnection;
struct zwp_virtual_keyboard_v1;

// Types through the compositor's zwp_virtual_keyboard_v1 (wlroots compositors: sway, Hyprland,
// river, labwc) with Tolvane's own keymap, uploaded again only when a text needs keysyms it lacks:
// any character is typed whatever the user's layout, and no permission is needed. Wayland clients
// get the key events and keymap changes in the order they were sent.
class VirtualKeyboardTyper final : public WaylandTyper {
public:
    // The compositor passes keys on to the focused client as fast as they come, and drops a client
    // whose buffer overflows: keys go out in batches, each after the compositor has handled the one
    // before, at most this many per second (a client reads that many easily).
    static constexpr int keysPerBatch = 50;
    static constexpr int keysPerSecond = 5000;

    // Null when the compositor does not offer the protocol.
    static std::unique_ptr<VirtualKeyboardTyper> create(WaylandConnection& connection);
    ~VirtualKeyboardTyper() override;

    Typed type(const QString& text) override;
    bool tap(unsigned long keysym, int times) override;
    bool pasteKeystroke(bool terminal) override;
    QString name() const override { return QStringLiteral("zwp_virtual_keyboard_v1 with Tolvane's own keymap"); }

private:
    VirtualKeyboardTyper(WaylandConnection& connection, zwp_virtual_keyboard_v1* keyboard);
    bool useKeymapFor(const std::vector<unsigned long>& keysyms);
    void key(unsigned xkbKeycode, bool press);
    void press(unsigned long keysym);
    bool sync();

    WaylandConnection& connection_;
    zwp_virtual_keyboard_v1* keyboard_;
    std::optional<OwnKeymap> keymap_;
    QElapsedTimer clock_;
    int sinceSync_ = 0;
    qint64 batchStartNs_ = 0;
};
