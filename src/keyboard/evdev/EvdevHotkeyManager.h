#pragma once

#include "core/Collaborators.h"
#include "keyboard/evdev/KeyboardReader.h"

#include <QObject>

class QThread;

// The system-wide key monitor of a Wayland session, where no X client sees other clients' keys: it
// reads the keyboards themselves through evdev (read access to /dev/input/event*, the input group).
// The devices are read in a thread of its own (KeyboardReader); the callbacks are posted to a later
// turn of the GUI thread's event loop, in the order of the key events.
class EvdevHotkeyManager final : public QObject, public AbstractHotkeyManager {
    Q_OBJECT
public:
    // `writers` makes the virtual keyboard that keeps the chord's Space from the application; the
    // default writes to /dev/uinput.
    explicit EvdevHotkeyManager(KeyboardReader::WriterFactory writers = {}, QObject* parent = nullptr);
    ~EvdevHotkeyManager() override;

    void setActivationKey(ActivationKey key) override;
    ActivationKey activationKey() const override { return activationKey_; }
    bool start() override;
    void stop() override;

    // Whether a keyboard being read has an Fn key that reports itself.
    bool fnKeyPresent() const { return reader_ && reader_->fnKeyPresent(); }

private:
    void onCommand(int keyCommand);

    KeyboardReader::WriterFactory writers_;
    ActivationKey activationKey_ = ActivationKey::leftOption;
    QThread* thread_ = nullptr;
    KeyboardReader* reader_ = nullptr;
};
