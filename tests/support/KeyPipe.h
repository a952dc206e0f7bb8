#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

// A keyboard made of a named pipe: key events written as the kernel writes them (64-bit `struct
// input_event`, each key event followed by SYN_REPORT), for a key monitor told to read it through
// TOLVANE_INPUT_DEVICES.
class KeyPipe {
public:
    explicit KeyPipe(QString path);  // makes the pipe
    ~KeyPipe();

    const QString& path() const { return path_; }
    // Opens the writing end; the reader must have it open already. False when it cannot.
    bool connect();
    // Closes the writing end: to the reader, the keyboard was unplugged.
    void unplug();

    // Key events: value 1 down, 2 auto-repeat, 0 up. Each returns once the reader has taken it;
    // false when the write failed or nobody read it.
    bool key(std::uint16_t code, std::int32_t value);
    bool press(std::uint16_t code) { return key(code, 1); }
    bool release(std::uint16_t code) { return key(code, 0); }
    // Any bytes, for records cut in two or garbage.
    bool raw(const QByteArray& bytes);
    static QByteArray record(std::uint16_t type, std::uint16_t code, std::int32_t value);

private:
    QString path_;
    int fd_ = -1;
};

// Kernel key codes the tests use.
namespace EvKey {
inline constexpr std::uint16_t esc = 1, a = 30, leftAlt = 56, space = 57, rightAlt = 100, leftShift = 42, rightCtrl = 97,
                               leftMeta = 125;
}
