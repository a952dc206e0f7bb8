#pragma once

#include <QString>

// One way of sending keys in a Wayland session (the compositor's virtual-keyboard protocol, or a
// uinput keyboard). GUI thread only.
class WaylandTyper {
public:
    enum class Typed { done, failed, notInLayout };

    virtual ~WaylandTyper() = default;
    // notInLayout: some character has no key, nothing was sent (the text is pasted instead).
    virtual Typed type(const QString& text) = 0;
    // Presses a key that has a keysym of its own (BackSpace, Return) `times` times.
    virtual bool tap(unsigned long keysym, int times) = 0;
    // Ctrl+V, or Ctrl+Shift+V for a terminal.
    virtual bool pasteKeystroke(bool terminal) = 0;
    // Names the backend for the start-up log line.
    virtual QString name() const = 0;
};
