#include "core/ActivationKey.h"

namespace ActivationKeys {

namespace {
struct Info {
    ActivationKey key;
    const char* raw;
    const char* label;
    unsigned keyCode;
    unsigned evdevCode;
};

constexpr Info table[] = {
    {ActivationKey::leftOption, "leftOption", "Left Alt", 64, 56},
    {ActivationKey::rightOption, "rightOption", "Right Alt (AltGr)", 108, 100},
    {ActivationKey::leftCommand, "leftCommand", "Left Super", 133, 125},
    {ActivationKey::rightCommand, "rightCommand", "Right Super", 134, 126},
    {ActivationKey::rightControl, "rightControl", "Right Ctrl", 105, 97},
    {ActivationKey::fn, "fn", "Fn (if your keyboard reports it)", 0, 464},
};

const Info& info(ActivationKey key) { return table[static_cast<int>(key)]; }
}  // namespace

QString rawValue(ActivationKey key) { return QString::fromLatin1(info(key).raw); }

std::optional<ActivationKey> fromRawValue(const QString& raw)
{
    for (const Info& i : table) {
        if (raw == QLatin1String(i.raw))
            return i.key;
    }
    return std::nullopt;
}

QString label(ActivationKey key) { return QString::fromUtf8(info(key).label); }

unsigned keyCode(ActivationKey key) { return info(key).keyCode; }

unsigned evdevCode(ActivationKey key) { return info(key).evdevCode; }

}  // namespace ActivationKeys
