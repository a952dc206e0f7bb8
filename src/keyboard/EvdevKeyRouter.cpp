#include "keyboard/EvdevKeyRouter.h"

#include <algorithm>

namespace {
constexpr std::uint16_t evSyn = 0, evKey = 1, synReport = 0;

// Shift, Ctrl, Alt, Super, AltGr, the locks and Fn: keys that only change flags.
bool isModifier(std::uint16_t code)
{
    static constexpr std::uint16_t modifiers[] = {29, 42, 54, 56, 58, 69, 70, 97, 100, 125, 126, 464};
    return std::find(std::begin(modifiers), std::end(modifiers), code) != std::end(modifiers);
}
}  // namespace

void EvdevKeyRouter::setWriting(bool on)
{
    writing_ = on;
    if (!on)
        forwarded_.clear();  // the virtual keyboard went, and with it every key it held
}

bool EvdevKeyRouter::anyKeyDown(int device) const
{
    const auto it = devices_.find(device);
    return it != devices_.end() && !it->second.held.empty();
}

bool EvdevKeyRouter::heldElsewhere(int id, std::uint16_t code) const
{
    return std::any_of(devices_.begin(), devices_.end(),
                       [&](const auto& d) { return d.first != id && d.second.held.contains(code); });
}

EvdevKeyRouter::Result EvdevKeyRouter::handle(int id, bool exclusive, const InputEvent& event)
{
    Result out;
    Device& device = devices_[id];
    device.exclusive = exclusive;
    if (event.type == evKey)
        key(id, device, event.code, event.value, out);
    else if (event.type == evSyn && event.code == synReport)
        endFrame(device, out);
    return out;
}

EvdevKeyRouter::Result EvdevKeyRouter::deviceGone(int id)
{
    Result out;
    const auto it = devices_.find(id);
    if (it == devices_.end())
        return out;
    const std::set<std::uint16_t> held = it->second.held;
    for (std::uint16_t code : held)
        key(id, it->second, code, 0, out);
    it->second.neutralTap = false;
    endFrame(it->second, out);
    devices_.erase(it);
    return out;
}

void EvdevKeyRouter::key(int id, Device& device, std::uint16_t code, std::int32_t value, Result& out)
{
    const bool press = value != 0;
    // A second keyboard pressing a key the first one holds changes nothing but repeats; only the last
    // release counts.
    const bool changed = press ? device.held.insert(code).second : device.held.erase(code) > 0;
    KeyCommand command = KeyCommand::none;
    if (press || (changed && !heldElsewhere(id, code)))
        command = classifier_.handle(press, code, activation_, isModifier(code));
    if (command != KeyCommand::none)
        out.commands.push_back(command);
    if (command == KeyCommand::optionDown && writing_)
        device.neutralTap = true;

    // The chord's Space never reaches the desktop; its repeats and release are dropped below with
    // every other key the virtual keyboard does not hold.
    if (command == KeyCommand::toggleChord || !device.exclusive || !writing_)
        return;
    if (value == 1) {
        if (!changed || forwarded_[code]++ > 0)
            return;
    } else if (value == 0) {
        const auto it = forwarded_.find(code);
        if (!changed || it == forwarded_.end() || --it->second > 0)
            return;
        forwarded_.erase(it);
    } else if (!forwarded_.contains(code)) {
        return;
    }
    out.writes.push_back({evKey, code, value});
    device.frameOpen = true;
}

void EvdevKeyRouter::endFrame(Device& device, Result& out)
{
    if (device.frameOpen)
        out.writes.push_back({evSyn, synReport, 0});
    device.frameOpen = false;
    if (device.neutralTap) {
        out.writes.insert(out.writes.end(), {{evKey, neutralKey, 1}, {evSyn, synReport, 0}, {evKey, neutralKey, 0}, {evSyn, synReport, 0}});
        device.neutralTap = false;
    }
}
