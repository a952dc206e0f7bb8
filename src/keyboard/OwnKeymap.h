#pragma once

#include <QByteArray>

#include <optional>
#include <vector>

// The keymap Tolvane gives its virtual keyboard: every keysym a text needs on a key of its own, on
// the first level, so any character is typed whatever layout the user has. Besides the text's
// keysyms it always holds Control, Shift and V (the paste keystroke), Return, Tab and BackSpace.
// Keycodes stay within X's range (8–255) so X clients under Xwayland see every key.
class OwnKeymap {
public:
    static constexpr unsigned firstKeycode = 9;
    static constexpr unsigned lastKeycode = 255;
    // Real modifier masks as every compiled keymap numbers them.
    static constexpr unsigned shiftMask = 1u << 0;
    static constexpr unsigned controlMask = 1u << 2;

    static const std::vector<unsigned long>& fixedKeysyms();
    // How many keysyms of a text fit beside the fixed ones.
    static std::size_t textCapacity();

    // A keymap with the fixed keysyms and `keysyms` (duplicates once); nothing when they do not fit.
    static std::optional<OwnKeymap> holding(const std::vector<unsigned long>& keysyms);
    // Cuts a text's keysyms into runs whose distinct keysyms fit into one keymap each, in order.
    static std::vector<std::vector<unsigned long>> runs(const std::vector<unsigned long>& keysyms);

    bool contains(unsigned long keysym) const { return keycode(keysym).has_value(); }
    bool containsAll(const std::vector<unsigned long>& keysyms) const;
    // The xkb keycode of `keysym`; the Wayland key code is 8 less.
    std::optional<unsigned> keycode(unsigned long keysym) const;
    const std::vector<unsigned long>& keysyms() const { return keysyms_; }
    // The keymap in xkb's text format, as the virtual-keyboard protocol takes it.
    QByteArray text() const;

private:
    std::vector<unsigned long> keysyms_;  // keysyms_[i] sits on keycode firstKeycode + i
};
