#pragma once

#include <QColor>

// The accent colour: the pill's bars and ring, the tray icon, highlights in the windows.
inline QColor brandGreen()
{
    return QColor::fromRgbF(0.13f, 0.66f, 0.35f, 1.0f);
}
