#include "keyboard/OwnKeymap.h"

#include "keyboard/TextKeysyms.h"

#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <unordered_set>

const std::vector<unsigned long>& OwnKeymap::fixedKeysyms()
{
    static const std::vector<unsigned long> fixed{XKB_KEY_Control_L, XKB_KEY_Shift_L, XKB_KEY_v,
                                                  TextKeysyms::returnKeysym, TextKeysyms::tabKeysym,
                                                  TextKeysyms::backSpaceKeysym};
    return fixed;
}

std::size_t OwnKeymap::textCapacity() { return lastKeycode - firstKeycode + 1 - fixedKeysyms().size(); }

std::optional<OwnKeymap> OwnKeymap::holding(const std::vector<unsigned long>& keysyms)
{
    OwnKeymap map;
    map.keysyms_ = fixedKeysyms();
    std::unordered_set<unsigned long> seen(map.keysyms_.begin(), map.keysyms_.end());
    for (unsigned long ks : keysyms) {
        if (ks != 0 && seen.insert(ks).second)
            map.keysyms_.push_back(ks);
    }
    if (map.keysyms_.size() > lastKeycode - firstKeycode + 1)
        return std::nullopt;
    return map;
}

std::vector<std::vector<unsigned long>> OwnKeymap::runs(const std::vector<unsigned long>& keysyms)
{
    std::vector<std::vector<unsigned long>> out;
    std::unordered_set<unsigned long> distinct;
    const std::unordered_set<unsigned long> fixed(fixedKeysyms().begin(), fixedKeysyms().end());
    for (unsigned long ks : keysyms) {
        const bool isNew = !fixed.contains(ks) && !distinct.contains(ks);
        if (out.empty() || (isNew && distinct.size() == textCapacity())) {
            out.emplace_back();
            distinct.clear();
        }
        if (isNew)
            distinct.insert(ks);
        out.back().push_back(ks);
    }
    return out;
}

bool OwnKeymap::containsAll(const std::vector<unsigned long>& keysyms) const
{
    return std::all_of(keysyms.begin(), keysyms.end(), [this](unsigned long ks) { return contains(ks); });
}

std::optional<unsigned> OwnKeymap::keycode(unsigned long keysym) const
{
    const auto it = std::find(keysyms_.begin(), keysyms_.end(), keysym);
    if (it == keysyms_.end())
        return std::nullopt;
    return firstKeycode + static_cast<unsigned>(it - keysyms_.begin());
}

QByteArray OwnKeymap::text() const
{
    // Types and compatibility come from xkb's "complete" sets, which every compositor has; the
    // symbols are all on one level, so no modifier ever changes what a key types.
    QByteArray keycodes = "xkb_keycodes \"tolvane\" {\n  minimum = 8;\n  maximum = 255;\n";
    QByteArray symbols = "xkb_symbols \"tolvane\" {\n";
    for (std::size_t i = 0; i < keysyms_.size(); ++i) {
        const QByteArray kc = QByteArray::number(static_cast<unsigned>(firstKeycode + i));
        char name[64] = {};
        if (xkb_keysym_get_name(static_cast<xkb_keysym_t>(keysyms_[i]), name, sizeof name) <= 0)
            continue;
        keycodes += "  <K" + kc + "> = " + kc + ";\n";
        symbols += "  key <K" + kc + "> { [ " + QByteArray(name) + " ] };\n";
    }
    for (const auto& [modifier, keysym] : {std::pair{"Control", XKB_KEY_Control_L}, std::pair{"Shift", XKB_KEY_Shift_L}})
        symbols += "  modifier_map " + QByteArray(modifier) + " { <K" + QByteArray::number(*keycode(keysym)) + "> };\n";
    return "xkb_keymap {\n" + keycodes + "};\nxkb_types \"tolvane\" { include \"complete\" };\n"
           + "xkb_compatibility \"tolvane\" { include \"complete\" };\n" + symbols + "};\n};\n";
}
