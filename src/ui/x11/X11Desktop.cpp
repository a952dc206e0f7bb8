#include "ui/x11/X11Desktop.h"

#include "keyboard/evdev/InputAccess.h"

#include <QByteArray>
#include <QGuiApplication>
#include <QWidget>
#include <QtGui/qguiapplication_platform.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <algorithm>
#include <vector>

namespace X11Desktop {
namespace {

Display* display()
{
    if (!isX11())
        return nullptr;
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->display() : nullptr;
}

void sendToRoot(Display* dpy, Window w, Atom type, long a0, long a1, long a2)
{
    XEvent ev{};
    ev.xclient.type = ClientMessage;
    ev.xclient.window = w;
    ev.xclient.message_type = type;
    ev.xclient.format = 32;
    ev.xclient.data.l[0] = a0;
    ev.xclient.data.l[1] = a1;
    ev.xclient.data.l[2] = a2;
    ev.xclient.data.l[3] = 1;  // a normal application asks
    XSendEvent(dpy, DefaultRootWindow(dpy), False, SubstructureRedirectMask | SubstructureNotifyMask, &ev);
}

// The atoms a window's list property holds now (the states Qt or the window manager set).
std::vector<Atom> atomList(Display* dpy, Window w, Atom property)
{
    std::vector<Atom> atoms;
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(dpy, w, property, 0, 1024, False, XA_ATOM, &type, &format, &count, &after, &data) ==
            Success &&
        data) {
        if (type == XA_ATOM && format == 32)
            atoms.assign(reinterpret_cast<Atom*>(data), reinterpret_cast<Atom*>(data) + count);
        XFree(data);
    }
    return atoms;
}

}  // namespace

Qt::WindowFlags overlayHint()
{
    return InputAccess::waylandSession() ? Qt::X11BypassWindowManagerHint : Qt::WindowFlags();
}

bool isX11()
{
    return QGuiApplication::platformName() == QLatin1String("xcb");
}

void showOnAllDesktops(QWidget* window)
{
    Display* dpy = display();
    if (!dpy || !window)
        return;
    const Window w = static_cast<Window>(window->winId());
    const Atom desktop = XInternAtom(dpy, "_NET_WM_DESKTOP", False);
    const Atom state = XInternAtom(dpy, "_NET_WM_STATE", False);
    const Atom wanted[] = {XInternAtom(dpy, "_NET_WM_STATE_STICKY", False),
                           XInternAtom(dpy, "_NET_WM_STATE_SKIP_TASKBAR", False),
                           XInternAtom(dpy, "_NET_WM_STATE_SKIP_PAGER", False)};

    const long all = 0xFFFFFFFF;
    XChangeProperty(dpy, w, desktop, XA_CARDINAL, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(&all), 1);

    // Keep the states Qt has set (above, for one) and add ours.
    std::vector<Atom> atoms = atomList(dpy, w, state);
    for (Atom a : wanted) {
        if (std::find(atoms.begin(), atoms.end(), a) == atoms.end())
            atoms.push_back(a);
    }
    XChangeProperty(dpy, w, state, XA_ATOM, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(atoms.data()),
                    static_cast<int>(atoms.size()));

    if (window->isVisible()) {
        // A mapped window's properties belong to the window manager; ask it.
        sendToRoot(dpy, w, desktop, all, 0, 0);
        sendToRoot(dpy, w, state, 1 /* add */, static_cast<long>(wanted[0]), 0);
        sendToRoot(dpy, w, state, 1, static_cast<long>(wanted[1]), static_cast<long>(wanted[2]));
    }
    XFlush(dpy);
}

bool canOpenDisplay(const QByteArray& name)
{
    if (name.isEmpty())
        return false;
    Display* dpy = XOpenDisplay(name.constData());
    if (!dpy)
        return false;
    XCloseDisplay(dpy);
    return true;
}

void setSkipTaskbar(QWidget* window, bool skip)
{
    Display* dpy = display();
    if (!dpy || !window)
        return;
    const Window w = static_cast<Window>(window->winId());
    const Atom state = XInternAtom(dpy, "_NET_WM_STATE", False);
    const Atom skipTaskbar = XInternAtom(dpy, "_NET_WM_STATE_SKIP_TASKBAR", False);

    std::vector<Atom> atoms = atomList(dpy, w, state);
    atoms.erase(std::remove(atoms.begin(), atoms.end(), skipTaskbar), atoms.end());
    if (skip)
        atoms.push_back(skipTaskbar);
    XChangeProperty(dpy, w, state, XA_ATOM, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(atoms.data()),
                    static_cast<int>(atoms.size()));
    if (window->isVisible())
        sendToRoot(dpy, w, state, skip ? 1 : 0 /* add or remove */, static_cast<long>(skipTaskbar), 0);
    XFlush(dpy);
}

// Whether someone owns the manager selection `prefix` + this screen's number (how compositors and
// trays announce themselves).
static bool screenSelectionOwned(Display* dpy, const QByteArray& prefix)
{
    const QByteArray name = prefix + QByteArray::number(DefaultScreen(dpy));
    return XGetSelectionOwner(dpy, XInternAtom(dpy, name.constData(), False)) != 0;
}

bool compositingActive()
{
    Display* dpy = display();
    // Elsewhere than on X11 the platform blends translucent windows itself.
    return !dpy || screenSelectionOwned(dpy, "_NET_WM_CM_S");
}

bool systemTrayOwned()
{
    Display* dpy = display();
    return dpy && screenSelectionOwned(dpy, "_NET_SYSTEM_TRAY_S");
}

}  // namespace X11Desktop
