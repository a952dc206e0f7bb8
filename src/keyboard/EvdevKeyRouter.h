#pragma once

#include "keyboard/InputEventWriter.h"
#include "keyboard/KeyClassifier.h"

#include <map>
#include <set>
#include <vector>

// The evdev key monitor's decisions, without any device: key events of several keyboards become the
// monitor's commands (through the same KeyClassifier as on X11) and the events Tolvane's virtual
// keyboard must write.
//
// Why no key is ever left down on the desktop:
// - Keyboards whose keys reach the desktop only through Tolvane ("exclusive": grabbed, or a pipe)
//   are grabbed by the device code only while none of their keys is down. A keyboard grabbed in the
//   middle of a press never tells the compositor that key went up, so that is the one thing never done.
// - Every press written to the virtual keyboard is later released through it: the device's own
//   release is forwarded, and a device that disappears has its held keys released here. A key the
//   virtual keyboard does not hold (the chord's Space) has its repeats and release dropped as well.
// - When Tolvane stops or dies, its virtual keyboard is destroyed, and the kernel releases every key
//   still down on it; the grabs go with the process too, and the physical releases that follow reach
//   the compositor as releases of keys it already saw go up, which it ignores.
class EvdevKeyRouter {
public:
    // KEY_UNKNOWN: its keycode has no symbol in any xkb layout, so tapping it does nothing but tell
    // the desktop that the held modifier was used with another key.
    static constexpr std::uint16_t neutralKey = 240;

    struct Result {
        std::vector<KeyCommand> commands;
        std::vector<InputEvent> writes;
    };

    void setActivationKey(unsigned evdevCode) { activation_ = evdevCode; }
    // Whether a virtual keyboard takes forwarded keys and neutral taps.
    void setWriting(bool on);
    bool isOptionDown() const { return classifier_.isOptionDown(); }
    // Whether the monitor saw a key of `device` go down and not yet up.
    bool anyKeyDown(int device) const;

    Result handle(int device, bool exclusive, const InputEvent& event);
    // The device went away: whatever it held is released.
    Result deviceGone(int device);

private:
    struct Device {
        bool exclusive = false;
        bool frameOpen = false;     // events written since the last SYN_REPORT
        bool neutralTap = false;    // tap the neutral key at the end of this frame
        std::set<std::uint16_t> held;
    };
    void key(int id, Device& device, std::uint16_t code, std::int32_t value, Result& out);
    void endFrame(Device& device, Result& out);
    bool heldElsewhere(int id, std::uint16_t code) const;

    KeyClassifier classifier_{KeyClassifier::evdevCodes};
    unsigned activation_ = 56;
    bool writing_ = false;
    std::map<int, Device> devices_;
    std::map<std::uint16_t, int> forwarded_;  // keys down on the virtual keyboard: how many devices hold each
};
