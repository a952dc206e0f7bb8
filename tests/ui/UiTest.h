#pragma once

// What the ui tests share: widgets by object name, a user's clicks and typing, a window's X properties.
#include "support/TestSupport.h"

#include <QLineEdit>
#include <QProcess>
#include <QTest>

using TestSupport::waitUntil;

template <typename T = QWidget>
T* child(const QObject* parent, const char* name)
{
    return parent->findChild<T*>(QLatin1String(name));
}

// The children of that name the user can see.
template <typename T = QWidget>
QList<T*> shown(const QWidget* parent, const char* name)
{
    QList<T*> out;
    for (T* w : parent->findChildren<T*>(QLatin1String(name)))
        if (w->isVisibleTo(parent))
            out << w;
    return out;
}

inline void click(QWidget* w) { QTest::mouseClick(w, Qt::LeftButton); }

inline void typeInto(QLineEdit* field, const QString& text)
{
    field->setFocus();
    field->selectAll();
    QTest::keyClicks(field, text);
}

// The window's type, states, desktop and input hint as the X server holds them.
inline QString windowProperties(QWidget* window)
{
    QProcess xprop;
    xprop.start(QStringLiteral("xprop"), QStringList{QStringLiteral("-id"), QString::number(window->winId())} +
                                             QStringLiteral("WM_HINTS _NET_WM_WINDOW_TYPE _NET_WM_STATE _NET_WM_DESKTOP").split(u' '));
    xprop.waitForFinished(5000);
    return QString::fromUtf8(xprop.readAllStandardOutput());
}
