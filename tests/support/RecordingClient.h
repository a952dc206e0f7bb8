#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <functional>
#include <optional>

// Drives the recording client (RecordingClientApp.cpp) from a test or benchmark on the same X display,
// and presses keys as a user would, through XTest on a connection of its own.
class RecordingClient final : public QObject {
    Q_OBJECT
public:
    struct Received {
        QString text;
        int backspaces = 0;
        int spaces = 0;
        int loneAltTaps = 0;
        int terminalPastes = 0;
        qint64 lastChangeUs = 0;  // CLOCK_MONOTONIC (std::chrono::steady_clock) of the last change
    };

    static constexpr int pollIntervalMs = 10;

    RecordingClient();
    ~RecordingClient() override;

    bool start();   // launches the client, waits for its window and gives it the focus
    bool focus();
    bool clear();
    // Ctrl+V reads the clipboard this long after the key (0: at once), as a busy application does.
    bool setPasteDelay(int ms);
    // Each key press keeps the client busy this long (0: not at all), as a slow application is.
    bool setKeyDelay(int ms);
    std::optional<Received> dump();
    // Dumps until `done` holds or the time is up; returns the last dump.
    Received waitFor(const std::function<bool(const Received&)>& done, int timeoutMs = 10000);
    unsigned long windowId() const { return window_; }

private:
    bool command(const QByteArray& line, const QByteArray& reply, int timeoutMs = 10000);

    QProcess process_;
    QTemporaryDir dir_;
    QByteArray output_;
    unsigned long window_ = 0;
};

// A user's fingers: XTest presses on the test's own X connection.
class Fingers {
public:
    Fingers();
    ~Fingers();
    bool ok() const { return dpy_ != nullptr; }
    void press(unsigned keycode);
    void release(unsigned keycode);
    void tap(unsigned keycode);
    unsigned keycodeOf(unsigned long keysym) const;
    bool capsLocked() const;
    // The keyboard mapping as core requests read it, to compare before and after.
    QByteArray mapping() const;

private:
    struct _XDisplay* dpy_ = nullptr;
};
