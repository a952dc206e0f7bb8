#pragma once

// Turns raw key presses and releases into the key monitor's five commands. Pure bookkeeping, so the
// decision table is tested without a display. Key codes are X keycodes (evdev code + 8).
enum class KeyCommand { none, optionDown, optionUp, toggleChord, escape, anyKey };

class KeyClassifier {
public:
    static constexpr unsigned escapeKeycode = 9;
    static constexpr unsigned spaceKeycode = 65;
    static constexpr unsigned returnKeycode = 36;

    // One key event. `isModifier`: the key belongs to a modifier (Shift, Ctrl, Alt, Super, AltGr,
    // the locks); such keys only change flags and never count as "another key". An activation key
    // code of 0 (Fn on X11) never matches.
    KeyCommand handle(bool press, unsigned keycode, unsigned activationKeycode, bool isModifier);

    // Whether the activation key is held, as last seen. Nothing but its own events changes it.
    bool isOptionDown() const { return optionDown_; }

private:
    bool optionDown_ = false;
};
