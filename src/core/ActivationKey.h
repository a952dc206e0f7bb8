#pragma once

#include <QString>

#include <array>
#include <optional>

// The modifier the user holds to dictate. Raw values are what the settings store; key codes are
// X11 keycodes (evdev code + 8), evdev codes are the kernel's (what a Wayland session's monitor reads).
enum class ActivationKey { leftOption, rightOption, leftCommand, rightCommand, rightControl, fn };

namespace ActivationKeys {

inline constexpr std::array<ActivationKey, 6> allCases = {
    ActivationKey::leftOption,   ActivationKey::rightOption, ActivationKey::leftCommand,
    ActivationKey::rightCommand, ActivationKey::rightControl, ActivationKey::fn,
};
inline constexpr ActivationKey defaultKey = ActivationKey::leftOption;

QString rawValue(ActivationKey key);
std::optional<ActivationKey> fromRawValue(const QString& raw);
QString label(ActivationKey key);
// 0 when X11 has no keycode for the key (Fn on most keyboards).
unsigned keyCode(ActivationKey key);
// The kernel's key code (KEY_LEFTALT…, KEY_FN).
unsigned evdevCode(ActivationKey key);

}  // namespace ActivationKeys
