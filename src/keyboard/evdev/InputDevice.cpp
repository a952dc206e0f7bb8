#include "keyboard/evdev/InputDevice.h"

#include <libevdev/libevdev.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <linux/input.h>

InputDevice::~InputDevice()
{
    ungrab();
    if (evdev_)
        libevdev_free(evdev_);
    if (fd_ >= 0)
        ::close(fd_);
}

std::unique_ptr<InputDevice> InputDevice::open(const QString& path, QString* error, int* code)
{
    const QByteArray native = path.toLocal8Bit();
    const int fd = ::open(native.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (code)
            *code = errno;
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        return nullptr;
    }
    std::unique_ptr<InputDevice> device(new InputDevice);
    device->path_ = path;
    device->fd_ = fd;
    struct stat st {};
    if (fstat(fd, &st) == 0 && S_ISCHR(st.st_mode)) {
        const int rc = libevdev_new_from_fd(fd, &device->evdev_);
        if (rc < 0) {
            device->evdev_ = nullptr;
            if (code)
                *code = -rc;
            if (error)
                *error = QStringLiteral("not an input device: ") + QString::fromLocal8Bit(std::strerror(-rc));
            return nullptr;
        }
    }
    device->pipe_ = S_ISFIFO(st.st_mode);
    return device;
}

QString InputDevice::name() const
{
    return evdev_ ? QString::fromUtf8(libevdev_get_name(evdev_)) : path_;
}

bool InputDevice::isKeyboard() const
{
    if (!evdev_)
        return true;
    for (unsigned code : {KEY_A, KEY_Z, KEY_SPACE, KEY_ESC}) {
        if (!libevdev_has_event_code(evdev_, EV_KEY, code))
            return false;
    }
    return true;
}

bool InputDevice::hasFnKey() const { return evdev_ && libevdev_has_event_code(evdev_, EV_KEY, KEY_FN); }

bool InputDevice::anyKeyDown() const
{
    for (unsigned code = 0; code <= KEY_MAX; ++code) {
        if (libevdev_get_event_value(evdev_, EV_KEY, code) != 0)
            return true;
    }
    return false;
}

bool InputDevice::grab()
{
    if (!evdev_ || grabbed_)
        return grabbed_;
    // A key down now would stay down on the desktop: its release would reach only Tolvane.
    if (anyKeyDown())
        return false;
    grabbed_ = libevdev_grab(evdev_, LIBEVDEV_GRAB) == 0;
    return grabbed_;
}

void InputDevice::ungrab()
{
    if (evdev_ && grabbed_)
        libevdev_grab(evdev_, LIBEVDEV_UNGRAB);
    grabbed_ = false;
}

bool InputDevice::read(std::vector<InputEvent>& out)
{
    if (evdev_) {
        input_event ev{};
        for (;;) {
            int rc = libevdev_next_event(evdev_, LIBEVDEV_READ_FLAG_NORMAL, &ev);
            if (rc == LIBEVDEV_READ_STATUS_SYNC) {
                // Events were dropped: what changed meanwhile comes as events of its own.
                while ((rc = libevdev_next_event(evdev_, LIBEVDEV_READ_FLAG_SYNC, &ev)) == LIBEVDEV_READ_STATUS_SYNC)
                    out.push_back({ev.type, ev.code, ev.value});
                if (rc == -EAGAIN)
                    continue;
            }
            if (rc == -EAGAIN)
                return true;
            if (rc < 0)
                return false;
            out.push_back({ev.type, ev.code, ev.value});
        }
    }
    char buffer[sizeof(input_event) * 64];
    for (;;) {
        const ssize_t n = ::read(fd_, buffer, sizeof buffer);
        if (n < 0)
            return errno == EAGAIN || errno == EINTR;
        if (n == 0)
            return false;
        partial_.append(buffer, n);
        qsizetype at = 0;
        for (; at + qsizetype(sizeof(input_event)) <= partial_.size(); at += sizeof(input_event)) {
            input_event ev;
            std::memcpy(&ev, partial_.constData() + at, sizeof ev);
            out.push_back({ev.type, ev.code, ev.value});
        }
        partial_.remove(0, at);
    }
}
