#pragma once

#include <QString>

// What a Wayland session needs from the system for the keys, and the commands that give it.
namespace InputAccess {

// WAYLAND_DISPLAY is set or XDG_SESSION_TYPE is "wayland".
bool waylandSession();
// Whether Tolvane may create its virtual keyboard (keeping the chord's Space from the application).
bool canWriteUinput();
// Reading /dev/input/event* takes membership of the input group.
inline constexpr const char* inputGroupCommand = "sudo usermod -aG input $USER";
// The one command that lets this user write to /dev/uinput: the udev rule Tolvane ships where it
// is not installed, otherwise group membership or re-applying the rule.
QString uinputCommand();
// The line Settings shows under the shortcut, or empty when nothing needs fixing.
QString chordSpaceNotice();

}  // namespace InputAccess
