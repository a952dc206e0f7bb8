#pragma once

#include <functional>
#include <optional>
#include <utility>
#include <vector>

// How a text is typed with the keys at hand. Keysyms the layout already has are pressed on their own
// keys (with Shift for the second level); the others are put on spare keycodes (keycodes without
// symbols), several per mapping change. A spare keycode is only given a new keysym once clients have
// had time to read the mapping under which it was last pressed: the batch that does so asks to settle
// first. Pure bookkeeping; the injector does the X calls.

struct KeyStroke {
    unsigned keycode = 0;
    bool shift = false;
    bool operator==(const KeyStroke&) const = default;
};

struct TypingBatch {
    bool settle = false;  // wait for clients before remapping: a keycode in use gets a new keysym
    std::vector<std::pair<unsigned, unsigned long>> remap;  // keycode → keysym, one request
    std::vector<KeyStroke> strokes;
};

// The spare keycodes and what each holds at the moment (0 = nothing).
class SpareKeyPool {
public:
    struct Slot {
        unsigned keycode = 0;
        unsigned long keysym = 0;
        unsigned long long lastUse = 0;
    };

    SpareKeyPool() = default;
    explicit SpareKeyPool(const std::vector<unsigned>& keycodes);

    const std::vector<Slot>& entries() const { return slots_; }
    std::vector<Slot>& entries() { return slots_; }
    bool anyAssigned() const;
    void releaseAll();  // after the mapping was restored
    unsigned long long tick() { return ++clock_; }

private:
    std::vector<Slot> slots_;
    unsigned long long clock_ = 0;
};

using LayoutLookup = std::function<std::optional<KeyStroke>(unsigned long keysym)>;

// Keysyms that no key can type (no layout key, no spare keycode at all) are left out.
std::vector<TypingBatch> planTyping(const std::vector<unsigned long>& keysyms, const LayoutLookup& layout,
                                    SpareKeyPool& pool);

// Spare keycodes of a keyboard: those in [minKeycode, maxKeycode] whose symbol list is empty and that
// are no modifier. The highest one is kept for the key monitor (see `tapNeutralKeycode`).
std::vector<unsigned> spareKeycodes(unsigned minKeycode, unsigned maxKeycode,
                                    const std::function<bool(unsigned keycode)>& hasSymbols,
                                    const std::function<bool(unsigned keycode)>& isModifier);
std::vector<unsigned> typingPool(const std::vector<unsigned>& spares);
std::optional<unsigned> tapNeutralKeycode(const std::vector<unsigned>& spares);
