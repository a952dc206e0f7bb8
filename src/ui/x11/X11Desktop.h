#pragma once

#include <Qt>

class QByteArray;
class QWidget;

// The few window-manager hints Qt has no API for. Each does nothing outside an X11 session.
namespace X11Desktop {

bool isX11();
// Puts a top-level window on every desktop (_NET_WM_DESKTOP 0xFFFFFFFF, _NET_WM_STATE_STICKY) and
// keeps it out of the taskbar and pager. Before the first show the hints are set as properties; on a
// shown window the window manager is asked with client messages as well.
void showOnAllDesktops(QWidget* window);
// Whether an X display of that name (as in $DISPLAY) accepts a connection. Usable before any Qt
// application object exists.
bool canOpenDisplay(const QByteArray& name);
// Keeps a top-level window out of the taskbar (_NET_WM_STATE_SKIP_TASKBAR) or lets it back in.
void setSkipTaskbar(QWidget* window, bool skip);
// A compositing manager runs, so translucent window pixels are blended with what lies below.
bool compositingActive();
// What an overlay adds to its window flags. In a Wayland session it is left out of the window
// manager's hands (override-redirect): sway focuses every new managed Xwayland window, taking the
// keys from the application being dictated into. Qt's tool type (_NET_WM_WINDOW_TYPE_UTILITY)
// tells the compositor not to focus an unmanaged one.
Qt::WindowFlags overlayHint();
// An XEmbed system tray (_NET_SYSTEM_TRAY_S<screen>) is there to hold icons.
bool systemTrayOwned();

}  // namespace X11Desktop
