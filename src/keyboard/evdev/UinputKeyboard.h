#pragma once

#include "keyboard/InputEventWriter.h"

#include <QString>

#include <memory>

struct libevdev_uinput;

// Tolvane's virtual keyboard on /dev/uinput: the keys of the keyboards the monitor grabbed reach
// the desktop through it. Destroying it makes the kernel release every key still down on it.
class UinputKeyboard final : public InputEventWriter {
public:
    // Every virtual input device of Tolvane's has a name beginning so; the key monitor never reads
    // those back.
    static constexpr const char* ownNamePrefix = "Tolvane ";
    static constexpr const char* deviceName = "Tolvane virtual keyboard";

    ~UinputKeyboard() override;
    // Null, with the reason in `error`, when /dev/uinput cannot be written.
    static std::unique_ptr<InputEventWriter> create(QString* error);
    bool write(const std::vector<InputEvent>& events) override;

private:
    UinputKeyboard() = default;
    libevdev_uinput* device_ = nullptr;
};
