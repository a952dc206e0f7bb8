#pragma once

#include "keyboard/InputEventWriter.h"

#include <QByteArray>
#include <QString>

#include <memory>
#include <vector>

struct libevdev;

// One input device file, opened for reading without blocking. A kernel event node is read through
// libevdev; anything else (a pipe of `struct input_event` records, a file) is read record by record,
// since libevdev refuses what is not an event node.
class InputDevice {
public:
    ~InputDevice();
    InputDevice(const InputDevice&) = delete;
    InputDevice& operator=(const InputDevice&) = delete;

    // Null, with the reason in `error` and its errno in `code`, when the file cannot be opened.
    static std::unique_ptr<InputDevice> open(const QString& path, QString* error, int* code = nullptr);

    const QString& path() const { return path_; }
    QString name() const;
    int fd() const { return fd_; }
    bool isEventNode() const { return evdev_ != nullptr; }
    bool isPipe() const { return pipe_; }
    // Letter keys, Space and Esc; a file that is not an event node is taken as a keyboard.
    bool isKeyboard() const;
    bool hasFnKey() const;

    // Whether only Tolvane reads this device's keys: grabbed, or a pipe or file nobody else reads.
    bool exclusive() const { return grabbed_ || !evdev_; }
    // Takes the device for Tolvane alone (EVIOCGRAB), only while none of its keys is down; false
    // when a key is down or the grab failed.
    bool grab();
    void ungrab();

    // Appends what can be read now; false when the device is gone (unplugged, the pipe's writer
    // closed it, the file ended).
    bool read(std::vector<InputEvent>& out);

private:
    InputDevice() = default;
    bool anyKeyDown() const;

    QString path_;
    int fd_ = -1;
    libevdev* evdev_ = nullptr;
    bool pipe_ = false;
    bool grabbed_ = false;
    QByteArray partial_;  // the start of a record a pipe delivered in two pieces
};
