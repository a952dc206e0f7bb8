#pragma once

#include <cstdint>
#include <vector>

// One kernel input event without its time stamp: type (EV_KEY, EV_SYN…), code and value.
struct InputEvent {
    std::uint16_t type = 0;
    std::uint16_t code = 0;
    std::int32_t value = 0;
    bool operator==(const InputEvent&) const = default;
};

// Where the key monitor writes the events the desktop should see from Tolvane's virtual keyboard
// (the keys of grabbed keyboards, minus the chord's Space, and the neutral tap). The real one writes
// to /dev/uinput; tests record what would be written.
class InputEventWriter {
public:
    virtual ~InputEventWriter() = default;
    virtual bool write(const std::vector<InputEvent>& events) = 0;
};
