#include "keyboard/x11/X11Keyboard.h"

#include "keyboard/TypingPlan.h"

#include <X11/XKBlib.h>
#include <X11/keysym.h>

#include <mutex>

namespace X11Keyboard {

namespace {
int ignoreError(Display*, XErrorEvent*) { return 0; }
// Returns, so each connection's own exit handler decides: Tolvane's connections recover, the
// others keep Xlib's default of ending the process.
int reportIoError(Display*) { return 0; }
}  // namespace

void installErrorHandler()
{
    static std::once_flag once;
    std::call_once(once, [] {
        XSetErrorHandler(ignoreError);
        XSetIOErrorHandler(reportIoError);
    });
}

void ModifierMap::refresh(Display* dpy)
{
    masks_.fill(0);
    numLockMask_ = 0;
    XModifierKeymap* map = XGetModifierMapping(dpy);
    if (!map)
        return;
    const KeyCode numLock = XKeysymToKeycode(dpy, XK_Num_Lock);
    for (int mod = 0; mod < 8; ++mod) {
        for (int i = 0; i < map->max_keypermod; ++i) {
            const KeyCode kc = map->modifiermap[mod * map->max_keypermod + i];
            if (kc == 0)
                continue;
            masks_[kc] |= 1u << mod;
            if (kc == numLock)
                numLockMask_ = 1u << mod;
        }
    }
    XFreeModifiermap(map);
}

std::vector<unsigned> ModifierMap::heldKeys(Display* dpy) const
{
    char keys[32] = {};
    XQueryKeymap(dpy, keys);
    std::vector<unsigned> held;
    for (unsigned kc = 8; kc < 256; ++kc) {
        const bool down = keys[kc / 8] & (1 << (kc % 8));
        const unsigned mask = masks_[kc] & ~(LockMask | numLockMask_);
        if (down && mask != 0)
            held.push_back(kc);
    }
    return held;
}

std::vector<unsigned> spareKeycodes(Display* dpy, const ModifierMap& mods)
{
    int minKc = 0, maxKc = 0, perKey = 0;
    XDisplayKeycodes(dpy, &minKc, &maxKc);
    KeySym* syms = XGetKeyboardMapping(dpy, static_cast<KeyCode>(minKc), maxKc - minKc + 1, &perKey);
    if (!syms)
        return {};
    auto hasSymbols = [&](unsigned kc) {
        for (int i = 0; i < perKey; ++i) {
            if (syms[(kc - static_cast<unsigned>(minKc)) * static_cast<unsigned>(perKey) + static_cast<unsigned>(i)] != NoSymbol)
                return true;
        }
        return false;
    };
    auto isModifier = [&](unsigned kc) { return mods.isModifier(kc); };
    auto out = ::spareKeycodes(static_cast<unsigned>(minKc), static_cast<unsigned>(maxKc), hasSymbols, isModifier);
    XFree(syms);
    return out;
}

}  // namespace X11Keyboard
