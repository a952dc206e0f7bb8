#pragma once

#include "keyboard/InputEventWriter.h"
#include "keyboard/LayoutKeys.h"
#include "keyboard/wayland/WaylandTyper.h"

#include <QByteArray>

#include <functional>
#include <memory>
#include <optional>

// Types through a uinput keyboard where the compositor offers no virtual-keyboard protocol (GNOME,
// KDE). The compositor applies the user's layout to it, so each character becomes the key and
// modifiers that give it there, read from the keymap the compositor sends (wl_keyboard.keymap).
// The device is made once at start-up and kept: a compositor sees a new uinput device only after
// udev and libinput have opened it, and events written before that are lost.
class UinputTyper final : public WaylandTyper {
public:
    // `keymap` gives the compositor's current keymap text (it may change while running).
    UinputTyper(std::unique_ptr<InputEventWriter> writer, std::function<QByteArray()> keymap);

    Typed type(const QString& text) override;
    bool tap(unsigned long keysym, int times) override;
    bool pasteKeystroke(bool terminal) override;
    QString name() const override { return QStringLiteral("a uinput keyboard typing through the compositor's keymap"); }

private:
    const LayoutKeys* layout();

    std::unique_ptr<InputEventWriter> writer_;
    std::function<QByteArray()> keymap_;
    QByteArray keymapText_;
    std::optional<LayoutKeys> layout_;
};
