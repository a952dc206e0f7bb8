#pragma once

#include <QMap>
#include <QProcess>
#include <QRect>
#include <QString>

// A headless sway session of the test's own, with Xwayland for X clients. sway refuses to run as
// root, so under root it runs as the unprivileged uid 65534 (setpriv, no user is created) in a
// runtime folder of its own inside the sandbox; its Xwayland lets this test's user in. Stopped
// when destroyed.
class SwaySession {
public:
    ~SwaySession();
    // What went wrong, or an empty string once the compositor and its Xwayland answer. `config`:
    // lines added to sway's configuration.
    QString start(const QStringList& config = {});
    void stop();

    // The compositor's socket as an absolute path (a valid WAYLAND_DISPLAY whatever XDG_RUNTIME_DIR is).
    QString waylandDisplay() const { return runtime_ + QStringLiteral("/wayland-1"); }
    QString x11Display() const { return x11Display_; }
    // What a program needs to run as a client of this session, its windows through Xwayland.
    QMap<QString, QString> clientEnvironment() const;
    // A configuration line starting a foot terminal whose program, `cat`, writes every byte the
    // terminal sends it (typed keys, pastes) to terminalOutput().
    static QString recordingTerminal();
    static QString terminalOutput();
    // Mapped top-level X windows with this title, through Xwayland.
    QList<QRect> x11Windows(const QString& title) const;

private:
    QProcess sway_;
    QString runtime_;
    QString x11Display_;
};
