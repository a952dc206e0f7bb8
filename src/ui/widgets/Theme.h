#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QPixmap>
#include <QRectF>

class QPainter;
class QLineEdit;
class QScrollArea;
class QWidget;

// The accent colour: the pill's bars and ring, the tray icon, highlights in the windows.
// sRGB (0.13, 0.66, 0.35), about #21A859.
inline QColor brandGreen()
{
    return QColor::fromRgbF(0.13f, 0.66f, 0.35f, 1.0f);
}

// Colours, type and small drawings shared by every Tolvane window, so they all look alike.
namespace Theme {

QColor primaryText();
QColor secondaryText();
QColor tertiaryText();
// The neutral fill behind cards and rows: the text colour at a low opacity.
QColor secondaryFill(qreal opacity);
QColor systemBlue();
QColor systemOrange();

enum class TextStyle { title, title2, headline, body, callout, subheadline, caption, caption2 };
QFont font(TextStyle style, QFont::Weight weight = QFont::Normal, bool monospaced = false);

// The small glyphs the windows use; drawn here so they look the same on every desktop.
enum class Symbol {
    mic,
    hands,
    textCursor,
    keyboard,
    checkmarkCircle,
    checkmark,
    trash,
    plusCircle,
    docOnDoc,
    arrowClockwise,
    house,
    globe,
    arrowUpRight,
};
void paintSymbol(QPainter& painter, Symbol symbol, const QRectF& rect, const QColor& color);
QPixmap symbolPixmap(Symbol symbol, const QColor& color, int size, qreal devicePixelRatio = 1.0);
QIcon symbolIcon(Symbol symbol, const QColor& color, int size);

// The application icon: a green rounded square with a white microphone and sound waves.
QPixmap appIcon(int size, qreal devicePixelRatio = 1.0);

// A text field with a rounded border that turns brand green while it has the focus.
void styleField(QLineEdit* field);

// A slim, rounded vertical scroll bar for a scroll area, as the panes use.
void styleScrollBar(QScrollArea* area);

// A one-pixel separator line in the neutral colour.
QWidget* makeDivider(QWidget* parent = nullptr);

// Sets a widget's text colour through its palette (style sheets would override the style's look).
void setTextColor(QWidget* widget, const QColor& color);

}  // namespace Theme
