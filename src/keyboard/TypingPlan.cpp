#include "keyboard/TypingPlan.h"

#include <algorithm>
#include <unordered_set>

SpareKeyPool::SpareKeyPool(const std::vector<unsigned>& keycodes)
{
    for (unsigned kc : keycodes)
        slots_.push_back({kc, 0, 0});
}

bool SpareKeyPool::anyAssigned() const
{
    return std::any_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.keysym != 0; });
}

void SpareKeyPool::releaseAll()
{
    for (Slot& s : slots_)
        s.keysym = 0;
}

std::vector<TypingBatch> planTyping(const std::vector<unsigned long>& keysyms, const LayoutLookup& layout,
                                    SpareKeyPool& pool)
{
    std::vector<TypingBatch> batches(1);
    std::unordered_set<unsigned> usedInBatch;
    auto& spare = pool.entries();
    for (const unsigned long ks : keysyms) {
        if (const auto stroke = layout(ks)) {
            batches.back().strokes.push_back(*stroke);
            continue;
        }
        if (spare.empty())
            continue;
        auto slot = std::find_if(spare.begin(), spare.end(), [ks](const auto& s) { return s.keysym == ks; });
        if (slot == spare.end()) {
            slot = std::find_if(spare.begin(), spare.end(), [](const auto& s) { return s.keysym == 0; });
            if (slot == spare.end()) {
                // Every spare keycode holds something: the least recently used one not yet pressed
                // in this batch changes. That needs a batch that settles first; when there is none
                // or every keycode is pressed in it already, a new one starts.
                auto unused = [&](const auto& s) { return !usedInBatch.contains(s.keycode); };
                if (!batches.back().settle || std::none_of(spare.begin(), spare.end(), unused)) {
                    if (!batches.back().strokes.empty() || !batches.back().remap.empty())
                        batches.emplace_back();
                    usedInBatch.clear();
                    batches.back().settle = true;
                }
                slot = spare.end();
                for (auto it = spare.begin(); it != spare.end(); ++it) {
                    if (unused(*it) && (slot == spare.end() || it->lastUse < slot->lastUse))
                        slot = it;
                }
            }
            slot->keysym = ks;
            auto& remap = batches.back().remap;
            const auto same = std::find_if(remap.begin(), remap.end(),
                                           [&](const auto& r) { return r.first == slot->keycode; });
            if (same != remap.end())
                same->second = ks;
            else
                remap.emplace_back(slot->keycode, ks);
        }
        slot->lastUse = pool.tick();
        usedInBatch.insert(slot->keycode);
        batches.back().strokes.push_back({slot->keycode, false});
    }
    if (batches.size() == 1 && batches.front().strokes.empty() && batches.front().remap.empty())
        batches.clear();
    return batches;
}

std::vector<unsigned> spareKeycodes(unsigned minKeycode, unsigned maxKeycode,
                                    const std::function<bool(unsigned)>& hasSymbols,
                                    const std::function<bool(unsigned)>& isModifier)
{
    std::vector<unsigned> out;
    for (unsigned kc = minKeycode; kc <= maxKeycode; ++kc) {
        if (!hasSymbols(kc) && !isModifier(kc))
            out.push_back(kc);
    }
    return out;
}

std::vector<unsigned> typingPool(const std::vector<unsigned>& spares)
{
    if (spares.empty())
        return {};
    return {spares.begin(), spares.end() - 1};
}

std::optional<unsigned> tapNeutralKeycode(const std::vector<unsigned>& spares)
{
    if (spares.empty())
        return std::nullopt;
    return spares.back();
}
