#include "keyboard/LayoutKeys.h"

#include "keyboard/TextKeysyms.h"

#include <xkbcommon/xkbcommon.h>

#include <memory>

namespace {
constexpr std::uint16_t evKey = 1, evSyn = 0;
constexpr unsigned evdevOffset = 8;  // xkb keycode = kernel code + 8

struct ContextFree {
    void operator()(xkb_context* c) const { xkb_context_unref(c); }
};
struct StateFree {
    void operator()(xkb_state* s) const { xkb_state_unref(s); }
};

std::unique_ptr<xkb_context, ContextFree> newContext()
{
    return std::unique_ptr<xkb_context, ContextFree>(xkb_context_new(XKB_CONTEXT_NO_FLAGS));
}

// The key whose first level is `keysym`, and the modifiers that pressing it sets: `preferred` (a
// kernel code) when it is such a key, otherwise the first.
std::optional<std::pair<unsigned, xkb_mod_mask_t>> modifierKey(xkb_keymap* keymap, xkb_keysym_t keysym, unsigned preferred)
{
    std::optional<std::pair<unsigned, xkb_mod_mask_t>> found;
    for (xkb_keycode_t kc = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap), evdevOffset);
         kc <= xkb_keymap_max_keycode(keymap); ++kc) {
        const xkb_keysym_t* syms = nullptr;
        if (xkb_keymap_key_get_syms_by_level(keymap, kc, 0, 0, &syms) != 1 || syms[0] != keysym)
            continue;
        std::unique_ptr<xkb_state, StateFree> state(xkb_state_new(keymap));
        xkb_state_update_key(state.get(), kc, XKB_KEY_DOWN);
        const xkb_mod_mask_t mask = xkb_state_serialize_mods(state.get(), XKB_STATE_MODS_DEPRESSED);
        if (mask == 0)
            continue;
        if (!found || kc - evdevOffset == preferred)
            found = std::pair{kc - evdevOffset, mask};
    }
    return found;
}
}  // namespace

void LayoutKeys::Free::operator()(xkb_keymap* k) const { xkb_keymap_unref(k); }

std::optional<LayoutKeys> LayoutKeys::fromText(const QByteArray& keymapText)
{
    auto context = newContext();
    std::unique_ptr<xkb_keymap, Free> keymap(xkb_keymap_new_from_buffer(
        context.get(), keymapText.constData(), static_cast<size_t>(keymapText.size()), XKB_KEYMAP_FORMAT_TEXT_V1,
        XKB_KEYMAP_COMPILE_NO_FLAGS));
    return keymap ? fromKeymap(keymap.get()) : std::nullopt;
}

std::optional<LayoutKeys> LayoutKeys::fromNames(const char* layout, const char* variant)
{
    auto context = newContext();
    const xkb_rule_names names{"evdev", "pc105", layout, variant, nullptr};
    std::unique_ptr<xkb_keymap, Free> keymap(xkb_keymap_new_from_names(context.get(), &names, XKB_KEYMAP_COMPILE_NO_FLAGS));
    return keymap ? fromKeymap(keymap.get()) : std::nullopt;
}

std::optional<LayoutKeys> LayoutKeys::fromKeymap(xkb_keymap* keymap)
{
    // The ways to reach a level: nothing, Shift, AltGr, both.
    struct Way {
        xkb_mod_mask_t mask;
        std::vector<unsigned> keys;
    };
    std::vector<Way> ways{{0, {}}};
    const auto shift = modifierKey(keymap, XKB_KEY_Shift_L, keyLeftShift);
    const auto altGr = modifierKey(keymap, XKB_KEY_ISO_Level3_Shift, keyRightAlt);
    if (shift)
        ways.push_back({shift->second, {shift->first}});
    if (altGr)
        ways.push_back({altGr->second, {altGr->first}});
    if (shift && altGr)
        ways.push_back({shift->second | altGr->second, {shift->first, altGr->first}});

    LayoutKeys keys;
    const xkb_keycode_t last = std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap), highestKey + evdevOffset);
    for (xkb_keycode_t kc = std::max<xkb_keycode_t>(xkb_keymap_min_keycode(keymap), evdevOffset); kc <= last; ++kc) {
        const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap, kc, 0);
        for (xkb_level_index_t level = 0; level < levels; ++level) {
            const xkb_keysym_t* syms = nullptr;
            if (xkb_keymap_key_get_syms_by_level(keymap, kc, 0, level, &syms) != 1)
                continue;
            xkb_mod_mask_t masks[16];
            const size_t n = xkb_keymap_key_get_mods_for_level(keymap, kc, 0, level, masks, 16);
            for (size_t m = 0; m < n; ++m) {
                for (const Way& way : ways) {
                    if (way.mask != masks[m])
                        continue;
                    // By character: a layout may give it a legacy keysym (EuroSign) rather than U+20AC's.
                    const char32_t ch = xkb_keysym_to_utf32(syms[0]);
                    if (ch == 0)
                        continue;
                    const LayoutStroke stroke{kc - evdevOffset, way.keys};
                    auto [it, inserted] = keys.strokes_.try_emplace(ch, stroke);
                    if (!inserted && it->second.modifiers.size() > stroke.modifiers.size())
                        it->second = stroke;
                }
            }
        }
    }
    return keys;
}

std::optional<LayoutStroke> LayoutKeys::find(unsigned long keysym) const
{
    const auto it = strokes_.find(xkb_keysym_to_utf32(static_cast<xkb_keysym_t>(keysym)));
    return it == strokes_.end() ? std::nullopt : std::optional<LayoutStroke>(it->second);
}

std::vector<InputEvent> LayoutKeys::events(const LayoutStroke& stroke)
{
    std::vector<InputEvent> out;
    const auto key = [&out](unsigned code, int value) {
        out.push_back({evKey, static_cast<std::uint16_t>(code), value});
        out.push_back({evSyn, 0, 0});
    };
    for (unsigned m : stroke.modifiers)
        key(m, 1);
    key(stroke.code, 1);
    key(stroke.code, 0);
    for (auto m = stroke.modifiers.rbegin(); m != stroke.modifiers.rend(); ++m)
        key(*m, 0);
    return out;
}

std::optional<std::vector<InputEvent>> LayoutKeys::typing(const QString& text) const
{
    std::vector<InputEvent> out;
    for (const unsigned long keysym : TextKeysyms::fromText(text)) {
        const auto stroke = find(keysym);
        if (!stroke)
            return std::nullopt;
        const auto ev = events(*stroke);
        out.insert(out.end(), ev.begin(), ev.end());
    }
    return out;
}
