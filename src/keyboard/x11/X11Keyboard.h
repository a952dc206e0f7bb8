#pragma once

// Small pieces shared by the X11 key monitor and injector. Only included by .cpp files, so Xlib's
// macros stay out of the headers of the rest of the program.

#include <X11/Xlib.h>

#include <array>
#include <vector>

namespace X11Keyboard {

// Xlib's default handlers end the process on a protocol error (a grab another client holds gives an
// asynchronous BadAccess); this one ignores such errors. A broken connection is left to the exit
// handler each connection sets. Installed once, before the first request.
void installErrorHandler();

// The modifier mapping: which keycodes are modifiers and which modifier bit each sets.
class ModifierMap {
public:
    void refresh(Display* dpy);
    bool isModifier(unsigned keycode) const { return keycode < 256 && masks_[keycode] != 0; }
    unsigned maskOf(unsigned keycode) const { return keycode < 256 ? masks_[keycode] : 0; }
    unsigned numLockMask() const { return numLockMask_; }
    // Modifier keys that are held at the moment, Caps Lock and Num Lock excepted.
    std::vector<unsigned> heldKeys(Display* dpy) const;

private:
    std::array<unsigned, 256> masks_{};
    unsigned numLockMask_ = 0;
};

// Spare keycodes (no symbols, no modifier) of the keyboard as it is mapped now.
std::vector<unsigned> spareKeycodes(Display* dpy, const ModifierMap& mods);

}  // namespace X11Keyboard
