#include "support/KeyPipe.h"

#include <QByteArray>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

KeyPipe::KeyPipe(QString path) : path_(std::move(path)) { mkfifo(path_.toLocal8Bit().constData(), 0666); }

KeyPipe::~KeyPipe() { unplug(); }

bool KeyPipe::connect()
{
    unplug();
    fd_ = ::open(path_.toLocal8Bit().constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return fd_ >= 0;
}

void KeyPipe::unplug()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

QByteArray KeyPipe::record(std::uint16_t type, std::uint16_t code, std::int32_t value)
{
    input_event ev{};
    ev.type = type;
    ev.code = code;
    ev.value = value;
    return QByteArray(reinterpret_cast<const char*>(&ev), sizeof ev);
}

bool KeyPipe::key(std::uint16_t code, std::int32_t value)
{
    return raw(record(EV_KEY, code, value) + record(EV_SYN, SYN_REPORT, 0));
}

bool KeyPipe::raw(const QByteArray& bytes)
{
    if (fd_ < 0 || ::write(fd_, bytes.constData(), size_t(bytes.size())) != bytes.size())
        return false;
    // Until the reader took it all, so events of two pipes reach it in the order they were written.
    for (int i = 0; i < 5000; ++i) {
        int unread = 0;
        if (ioctl(fd_, FIONREAD, &unread) != 0 || unread == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}
