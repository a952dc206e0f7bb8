#pragma once

#include "keyboard/EvdevKeyRouter.h"
#include "keyboard/InputEventWriter.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <memory>

class InputDevice;
class QSocketNotifier;
class QTimer;
struct udev;
struct udev_monitor;

// The evdev monitor's worker, living in a thread of its own so that keys keep flowing to the desktop
// whatever the GUI thread is busy with. It reads every keyboard (or exactly the files named in
// TOLVANE_INPUT_DEVICES), follows keyboards coming and going through udev, and, when it can write to
// /dev/uinput, grabs each keyboard and forwards its keys through Tolvane's virtual keyboard, minus
// the chord's Space (see EvdevKeyRouter for why no key is left down).
class KeyboardReader final : public QObject {
    Q_OBJECT
public:
    using WriterFactory = std::function<std::unique_ptr<InputEventWriter>(QString* error)>;
    // How often a missing virtual keyboard is tried again (permission given while running).
    static constexpr int writerRetryMs = 5000;

    explicit KeyboardReader(WriterFactory writers, QObject* parent = nullptr);
    ~KeyboardReader() override;

    // Call in the reader's thread. False when there are keyboards but none may be read.
    bool open();
    // Any thread; effective from the next key event.
    void setActivationKey(unsigned evdevCode) { activation_ = evdevCode; }
    // Any thread: whether some keyboard being read has an Fn key that reports itself.
    bool fnKeyPresent() const { return fnKeys_ > 0; }

Q_SIGNALS:
    void command(int keyCommand);

private:
    struct Open {
        std::unique_ptr<InputDevice> device;
        QSocketNotifier* notifier = nullptr;
        bool listed = false;
    };
    enum class Added { yes, notAKeyboard, denied, failed };

    Added addDevice(const QString& path, bool listed);
    void removeDevice(int id);
    void onReadable(int id);
    void onUdevEvent();
    void route(const EvdevKeyRouter::Result& result);
    void tryWriter();
    void tryGrab(Open& open);
    void dropWriter();

    WriterFactory writers_;
    std::unique_ptr<InputEventWriter> writer_;
    QString writerError_;
    QTimer* writerRetry_;
    EvdevKeyRouter router_;
    std::atomic<unsigned> activation_{56};
    std::atomic<int> fnKeys_{0};
    std::map<int, Open> devices_;
    int nextId_ = 1;
    udev* udev_ = nullptr;
    udev_monitor* monitor_ = nullptr;
    QSocketNotifier* udevNotifier_ = nullptr;
};
