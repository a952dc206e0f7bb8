#include "ui/widgets/TaskbarPresence.h"

#include "storage/Preferences.h"
#include "ui/x11/X11Desktop.h"

#include <QList>
#include <QPointer>
#include <QWidget>
#include <QWindow>

namespace TaskbarPresence {

namespace {

QList<QPointer<QWidget>>& windows()
{
    static QList<QPointer<QWidget>> list;
    return list;
}

void setPresence(QWidget* window, bool showInTaskbar)
{
    const Qt::WindowType wanted = showInTaskbar ? Qt::Window : Qt::Tool;
    if (window->windowType() == wanted)
        return;
    // Desktops that list tool (utility) windows still honour the explicit state.
    X11Desktop::setSkipTaskbar(window, !showInTaskbar);
    const Qt::WindowFlags flags = (window->windowFlags() & ~Qt::WindowType_Mask) | wanted;
    if (QWindow* handle = window->windowHandle()) {
        // Changed in place: QWidget::setWindowFlags would re-create the native window, hiding it
        // and losing the keyboard focus.
        window->overrideWindowFlags(flags);
        handle->setFlags(flags);
    } else {
        window->setWindowFlags(flags);
    }
}

}  // namespace

void manage(QWidget* window)
{
    windows().removeAll(nullptr);
    if (!windows().contains(window))
        windows().append(window);
    setPresence(window, Preferences::shared().showDockIcon());
}

void apply(bool showInTaskbar)
{
    windows().removeAll(nullptr);
    for (const QPointer<QWidget>& w : windows())
        setPresence(w, showInTaskbar);
}

}  // namespace TaskbarPresence
