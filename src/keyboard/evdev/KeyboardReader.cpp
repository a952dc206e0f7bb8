#include "keyboard/evdev/KeyboardReader.h"

#include "keyboard/evdev/InputDevice.h"
#include "keyboard/evdev/UinputKeyboard.h"
#include "storage/Diagnostics.h"

#include <QSocketNotifier>
#include <QTimer>

#include <libudev.h>

#include <cerrno>
#include <cstring>

KeyboardReader::KeyboardReader(WriterFactory writers, QObject* parent) : QObject(parent), writers_(std::move(writers))
{
    writerRetry_ = new QTimer(this);
    writerRetry_->setInterval(writerRetryMs);
    connect(writerRetry_, &QTimer::timeout, this, &KeyboardReader::tryWriter);
}

KeyboardReader::~KeyboardReader()
{
    // The virtual keyboard goes first, releasing what it holds; then the grabs.
    writer_.reset();
    for (auto& [id, open] : devices_)
        delete open.notifier;
    devices_.clear();
    delete udevNotifier_;
    if (monitor_)
        udev_monitor_unref(monitor_);
    if (udev_)
        udev_unref(udev_);
}

bool KeyboardReader::open()
{
    tryWriter();
    const QString listed = qEnvironmentVariable("TOLVANE_INPUT_DEVICES");
    if (!listed.isEmpty()) {
        bool any = false;
        for (const QString& path : listed.split(QLatin1Char(':'), Qt::SkipEmptyParts))
            any = addDevice(path, true) == Added::yes || any;
        return any;
    }

    udev_ = udev_new();
    if (!udev_) {
        Diagnostics::log(QStringLiteral("hotkey: udev is not available"));
        return false;
    }
    monitor_ = udev_monitor_new_from_netlink(udev_, "udev");
    if (monitor_ && udev_monitor_filter_add_match_subsystem_devtype(monitor_, "input", nullptr) == 0
        && udev_monitor_enable_receiving(monitor_) == 0) {
        udevNotifier_ = new QSocketNotifier(udev_monitor_get_fd(monitor_), QSocketNotifier::Read, this);
        connect(udevNotifier_, &QSocketNotifier::activated, this, &KeyboardReader::onUdevEvent);
    } else {
        Diagnostics::log(QStringLiteral("hotkey: cannot watch for keyboards plugged in later"));
    }

    // Every event node; whether it is a keyboard is asked of the device itself, which also works
    // where udev's database is missing.
    udev_enumerate* scan = udev_enumerate_new(udev_);
    udev_enumerate_add_match_subsystem(scan, "input");
    udev_enumerate_add_match_sysname(scan, "event*");
    udev_enumerate_scan_devices(scan);
    int keyboards = 0, denied = 0;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(scan))
    {
        udev_device* dev = udev_device_new_from_syspath(udev_, udev_list_entry_get_name(entry));
        if (const char* node = dev ? udev_device_get_devnode(dev) : nullptr) {
            const Added added = addDevice(QString::fromLocal8Bit(node), false);
            keyboards += added == Added::yes;
            denied += added == Added::denied;
        }
        if (dev)
            udev_device_unref(dev);
    }
    udev_enumerate_unref(scan);
    if (keyboards == 0 && denied > 0) {
        Diagnostics::log(QStringLiteral("hotkey: no permission to read the keyboards in /dev/input"));
        return false;
    }
    if (keyboards == 0)
        Diagnostics::log(QStringLiteral("hotkey: no keyboard found yet; waiting for one to appear"));
    return true;
}

KeyboardReader::Added KeyboardReader::addDevice(const QString& path, bool listed)
{
    for (const auto& [id, open] : devices_) {
        if (open.device->path() == path)
            return Added::yes;
    }
    QString error;
    int code = 0;
    std::unique_ptr<InputDevice> device = InputDevice::open(path, &error, &code);
    if (!device) {
        if (listed)
            Diagnostics::log(QStringLiteral("hotkey: cannot read ") + path + QStringLiteral(": ") + error);
        return code == EACCES || code == EPERM ? Added::denied : Added::failed;
    }
    // Tolvane's own virtual devices (all named "Tolvane …") are never read back.
    if (!listed && (!device->isKeyboard() || device->name().startsWith(QLatin1String(UinputKeyboard::ownNamePrefix))))
        return Added::notAKeyboard;
    const int id = nextId_++;
    Open& open = devices_[id];
    open.listed = listed;
    open.notifier = new QSocketNotifier(device->fd(), QSocketNotifier::Read, this);
    connect(open.notifier, &QSocketNotifier::activated, this, [this, id] { onReadable(id); });
    fnKeys_ += device->hasFnKey();
    Diagnostics::log(QStringLiteral("hotkey: reading keys from ") + path
                     + (device->isEventNode() ? QStringLiteral(" (") + device->name() + QLatin1Char(')') : QString()));
    open.device = std::move(device);
    tryGrab(open);
    return Added::yes;
}

void KeyboardReader::removeDevice(int id)
{
    const auto it = devices_.find(id);
    if (it == devices_.end())
        return;
    Diagnostics::log(QStringLiteral("hotkey: input device gone: ") + it->second.device->path());
    route(router_.deviceGone(id));
    fnKeys_ -= it->second.device->hasFnKey();
    // Possibly inside its own signal: it goes once that returned.
    it->second.notifier->setEnabled(false);
    it->second.notifier->deleteLater();
    devices_.erase(it);
}

void KeyboardReader::onReadable(int id)
{
    const auto it = devices_.find(id);
    if (it == devices_.end())
        return;
    Open& open = it->second;
    std::vector<InputEvent> events;
    const bool alive = open.device->read(events);
    router_.setActivationKey(activation_);
    for (const InputEvent& e : events)
        route(router_.handle(id, open.device->exclusive(), e));
    if (alive) {
        tryGrab(open);
        return;
    }
    const QString path = open.device->path();
    const bool reopen = open.listed && open.device->isPipe();
    removeDevice(id);
    // A named pipe stands for a keyboard that comes back with its next writer.
    if (reopen)
        addDevice(path, true);
}

void KeyboardReader::onUdevEvent()
{
    udev_device* dev = udev_monitor_receive_device(monitor_);
    if (!dev)
        return;
    const char* node = udev_device_get_devnode(dev);
    const char* action = udev_device_get_action(dev);
    const QString path = node ? QString::fromLocal8Bit(node) : QString();
    if (path.startsWith(QLatin1String("/dev/input/event")) && action) {
        if (std::strcmp(action, "add") == 0) {
            addDevice(path, false);
        } else if (std::strcmp(action, "remove") == 0) {
            for (const auto& [id, open] : devices_) {
                if (open.device->path() == path) {
                    removeDevice(id);
                    break;
                }
            }
        }
    }
    udev_device_unref(dev);
}

void KeyboardReader::route(const EvdevKeyRouter::Result& result)
{
    if (!result.writes.empty() && writer_ && !writer_->write(result.writes)) {
        Diagnostics::log(QStringLiteral("hotkey: writing to the virtual keyboard failed; keyboards are released"));
        dropWriter();
    }
    for (KeyCommand c : result.commands)
        Q_EMIT command(static_cast<int>(c));
}

void KeyboardReader::tryWriter()
{
    if (writer_ || !writers_)
        return;
    QString error;
    writer_ = writers_(&error);
    router_.setWriting(writer_ != nullptr);
    if (!writer_) {
        if (error != writerError_)
            Diagnostics::log(QStringLiteral("hotkey: no virtual keyboard (") + error
                             + QStringLiteral("); the chord's Space also reaches the application"));
        writerError_ = error;
        writerRetry_->start();
        return;
    }
    writerRetry_->stop();
    writerError_.clear();
    Diagnostics::log(QStringLiteral("hotkey: virtual keyboard ready; the chord's Space stays with Tolvane"));
    for (auto& [id, open] : devices_)
        tryGrab(open);
}

void KeyboardReader::dropWriter()
{
    writer_.reset();
    router_.setWriting(false);
    for (auto& [id, open] : devices_)
        open.device->ungrab();
    writerRetry_->start();
}

void KeyboardReader::tryGrab(Open& open)
{
    if (!writer_ || !open.device->isEventNode() || open.device->exclusive())
        return;
    if (open.device->grab())
        Diagnostics::log(QStringLiteral("hotkey: ") + open.device->path()
                         + QStringLiteral(" now reaches the desktop through Tolvane's virtual keyboard"));
}
