#include "ui/TaskbarPresence.h"

#include "storage/Preferences.h"

#include <QList>
#include <QPointer>
#include <QWidget>

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
    // Changing the flags hides a visible window; show it again where it was.
    const bool visible = window->isVisible();
    const QPoint position = window->pos();
    window->setWindowFlags((window->windowFlags() & ~Qt::WindowType_Mask) | wanted);
    if (visible) {
        window->move(position);
        window->show();
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
