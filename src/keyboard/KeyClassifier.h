#pragma once

#include "core/Collaborators.h"

// Turns raw key presses and releases into the key monitor's five commands. Pure bookkeeping, so the
// decision table is tested without a display, and the same for X keycodes and kernel key codes.
enum class KeyCommand { none, optionDown, optionUp, toggleChord, escape, anyKey };

// Escape and Space in the code space of the events a classifier is fed.
struct KeyCodes {
    unsigned escape;
    unsigned space;
};

class KeyClassifier {
public:
    // X keycodes (evdev code + 8).
    static constexpr unsigned escapeKeycode = 9;
    static constexpr unsigned spaceKeycode = 65;
    static constexpr unsigned returnKeycode = 36;
    static constexpr KeyCodes x11Codes{escapeKeycode, spaceKeycode};
    // The kernel's KEY_ESC and KEY_SPACE.
    static constexpr KeyCodes evdevCodes{1, 57};

    explicit KeyClassifier(KeyCodes codes = x11Codes) : codes_(codes) {}

    // One key event. `isModifier`: the key belongs to a modifier (Shift, Ctrl, Alt, Super, AltGr,
    // the locks); such keys only change flags and never count as "another key". An activation key
    // code of 0 (Fn on X11) never matches.
    KeyCommand handle(bool press, unsigned keycode, unsigned activationKeycode, bool isModifier);

    // Whether the activation key is held, as last seen. Nothing but its own events changes it.
    bool isOptionDown() const { return optionDown_; }

private:
    KeyCodes codes_;
    bool optionDown_ = false;
};

// The callback of the key monitor's contract that a command fires; null for none.
inline std::function<void()> AbstractHotkeyManager::*hotkeyCallback(KeyCommand command)
{
    switch (command) {
    case KeyCommand::optionDown: return &AbstractHotkeyManager::onOptionDown;
    case KeyCommand::optionUp: return &AbstractHotkeyManager::onOptionUp;
    case KeyCommand::toggleChord: return &AbstractHotkeyManager::onToggleChord;
    case KeyCommand::escape: return &AbstractHotkeyManager::onEscape;
    case KeyCommand::anyKey: return &AbstractHotkeyManager::onAnyKey;
    case KeyCommand::none: break;
    }
    return nullptr;
}
