#include "keyboard/evdev/UinputKeyboard.h"

#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>

#include <cstring>

UinputKeyboard::~UinputKeyboard()
{
    if (device_)
        libevdev_uinput_destroy(device_);
}

std::unique_ptr<InputEventWriter> UinputKeyboard::create(QString* error)
{
    libevdev* proto = libevdev_new();
    libevdev_set_name(proto, deviceName);
    libevdev_set_id_bustype(proto, BUS_VIRTUAL);
    libevdev_enable_event_type(proto, EV_KEY);
    // Every key a keyboard has, KEY_UNKNOWN (the neutral tap) among them, and Fn. No EV_REP: the
    // compositor repeats keys itself.
    for (unsigned code = KEY_ESC; code <= KEY_MICMUTE; ++code)
        libevdev_enable_event_code(proto, EV_KEY, code, nullptr);
    libevdev_enable_event_code(proto, EV_KEY, KEY_FN, nullptr);
    std::unique_ptr<UinputKeyboard> keyboard(new UinputKeyboard);
    const int rc = libevdev_uinput_create_from_device(proto, LIBEVDEV_UINPUT_OPEN_MANAGED, &keyboard->device_);
    libevdev_free(proto);
    if (rc < 0) {
        keyboard->device_ = nullptr;
        if (error)
            *error = QStringLiteral("/dev/uinput: ") + QString::fromLocal8Bit(std::strerror(-rc));
        return nullptr;
    }
    return keyboard;
}

bool UinputKeyboard::write(const std::vector<InputEvent>& events)
{
    for (const InputEvent& e : events) {
        if (libevdev_uinput_write_event(device_, e.type, e.code, e.value) < 0)
            return false;
    }
    return true;
}
