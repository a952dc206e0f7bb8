#pragma once

#include "keyboard/InputEventWriter.h"

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

struct xkb_context;
struct xkb_keymap;

// One character as the user's layout types it: a key (kernel code) with modifier keys held.
struct LayoutStroke {
    unsigned code = 0;
    std::vector<unsigned> modifiers;  // kernel codes, pressed in this order, released in reverse
    bool operator==(const LayoutStroke&) const = default;
};

// Which key and modifiers give each keysym in a keymap the compositor applies to every keyboard
// (GNOME, KDE): the first layout, its levels reached with Shift (Left Shift) and AltGr (the key
// that gives ISO_Level3_Shift, Right Alt in most layouts). Of several ways the one with fewest
// modifiers wins, then the lowest key. Display-free: fed the keymap text the compositor sent.
class LayoutKeys {
public:
    static constexpr unsigned keyLeftShift = 42;  // KEY_LEFTSHIFT
    static constexpr unsigned keyLeftCtrl = 29;   // KEY_LEFTCTRL
    static constexpr unsigned keyRightAlt = 100;  // KEY_RIGHTALT
    // Keys above KEY_MICMUTE (KEY_EURO and such) are on no ordinary keyboard, nor on Tolvane's uinput one.
    static constexpr unsigned highestKey = 248;

    // Nothing when the text does not compile.
    static std::optional<LayoutKeys> fromText(const QByteArray& keymapText);
    // From RMLVO names ("evdev", "pc105", "de", …), as a compositor configured so would build it.
    static std::optional<LayoutKeys> fromNames(const char* layout, const char* variant = "");

    // The key typing the character of `keysym` (Return, Tab and BackSpace included).
    std::optional<LayoutStroke> find(unsigned long keysym) const;
    // Press and release of one stroke, each event followed by SYN_REPORT.
    static std::vector<InputEvent> events(const LayoutStroke& stroke);
    // The events that type the whole text; nothing when the layout lacks a character of it (the text
    // is then pasted whole, so nothing arrives out of order).
    std::optional<std::vector<InputEvent>> typing(const QString& text) const;

private:
    struct Free {
        void operator()(xkb_keymap* k) const;
    };
    static std::optional<LayoutKeys> fromKeymap(xkb_keymap* keymap);

    std::unordered_map<char32_t, LayoutStroke> strokes_;  // by the character a key types
};
