#include "support/Sway.h"

#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {
constexpr uid_t nobody = 65534;
QString runtimeFolder() { return AudioTest::sandboxPath(QStringLiteral("sway-runtime")); }
}  // namespace

SwaySession::~SwaySession() { stop(); }

QString SwaySession::start(const QStringList& config)
{
    if (QStandardPaths::findExecutable(QStringLiteral("sway")).isEmpty() || QStandardPaths::findExecutable(QStringLiteral("xhost")).isEmpty())
        return QStringLiteral("sway or xhost is missing (packages sway, xwayland, x11-xserver-utils; scripts/setup.sh --test installs them)");
    const bool root = getuid() == 0;
    runtime_ = runtimeFolder();
    const QByteArray rt = runtime_.toLocal8Bit();
    if (!QDir().mkpath(runtime_))
        return QStringLiteral("cannot make ") + runtime_;
    const QString ready = runtime_ + QStringLiteral("/x11-display");
    QFile cfg(runtime_ + QStringLiteral("/sway.cfg"));
    if (!cfg.open(QIODevice::WriteOnly))
        return QStringLiteral("cannot write the sway configuration");
    // Xwayland starts with its first client: xhost, which lets the test's user in and says which
    // display it is.
    cfg.write(QStringLiteral("output HEADLESS-1 resolution 1280x800\nxwayland enable\n"
                             "exec sh -c 'xhost +si:localuser:%1 >/dev/null && echo \"$DISPLAY\" > %2.part && mv %2.part %2'\n")
                  .arg(QString::fromLocal8Bit(getpwuid(getuid())->pw_name), ready)
                  .toUtf8());
    for (const QString& line : config)
        cfg.write(line.toUtf8() + '\n');
    cfg.close();
    if (root) {
        // The sandbox itself stays closed to others but for passing through to this folder.
        const QByteArray sandbox = qgetenv("TOLVANE_TEST_SANDBOX");
        if (chmod(sandbox.constData(), 0711) != 0 || chown(rt.constData(), nobody, nobody) != 0
            || chown((rt + "/sway.cfg").constData(), nobody, nobody) != 0)
            return QStringLiteral("cannot hand the runtime folder to uid 65534");
    }
    chmod(rt.constData(), 0700);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        env.remove(QString::fromLatin1(name));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_);
    env.insert(QStringLiteral("HOME"), runtime_);
    env.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    env.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    env.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    sway_.setProcessEnvironment(env);
    sway_.setProcessChannelMode(QProcess::MergedChannels);
    sway_.setStandardOutputFile(runtime_ + QStringLiteral(".log"));
    const QStringList swayArgs{QStringLiteral("sway"), QStringLiteral("-c"), cfg.fileName()};
    if (root)
        sway_.start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                                                            QStringLiteral("--clear-groups")} + swayArgs);
    else
        sway_.start(swayArgs.first(), swayArgs.mid(1));
    if (!sway_.waitForStarted())
        return QStringLiteral("sway did not start");
    if (!TestSupport::waitUntil([&] { return QFile::exists(ready) || sway_.state() != QProcess::Running; }, 20000)
        || !QFile::exists(ready)) {
        QFile log(runtime_ + QStringLiteral(".log"));
        log.open(QIODevice::ReadOnly);
        return QStringLiteral("sway or its Xwayland did not come up: ") + QString::fromUtf8(log.readAll().right(2000));
    }
    QFile display(ready);
    display.open(QIODevice::ReadOnly);
    x11Display_ = QString::fromUtf8(display.readAll()).trimmed();
    return {};
}

QString SwaySession::terminalOutput() { return runtimeFolder() + QStringLiteral("/terminal.txt"); }

QString SwaySession::recordingTerminal()
{
    // No echo and no line editing: the file gets the bytes as the terminal sent them.
    return QStringLiteral("exec foot -e sh -c 'stty -icanon -echo; exec cat > %1'").arg(terminalOutput());
}

void SwaySession::stop() { TestSupport::stop(sway_); }

QMap<QString, QString> SwaySession::clientEnvironment() const
{
    return {{QStringLiteral("WAYLAND_DISPLAY"), waylandDisplay()},
            {QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland")},
            {QStringLiteral("DISPLAY"), x11Display_},
            {QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb")}};
}

QList<QRect> SwaySession::x11Windows(const QString& title) const
{
    QList<QRect> found;
    Display* dpy = XOpenDisplay(x11Display_.toLocal8Bit().constData());
    if (!dpy)
        return found;
    Window root = 0, parent = 0, *children = nullptr;
    unsigned count = 0;
    if (XQueryTree(dpy, DefaultRootWindow(dpy), &root, &parent, &children, &count)) {
        for (unsigned i = 0; i < count; ++i) {
            XWindowAttributes a;
            char* name = nullptr;
            if (XGetWindowAttributes(dpy, children[i], &a) && a.map_state == IsViewable && XFetchName(dpy, children[i], &name)
                && name && title == QString::fromUtf8(name))
                found << QRect(a.x, a.y, a.width, a.height);
            if (name)
                XFree(name);
        }
        XFree(children);
    }
    XCloseDisplay(dpy);
    return found;
}
