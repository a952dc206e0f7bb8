#include "ui/widgets/Theme.h"

#include <QApplication>
#include <QFontDatabase>
#include <QPainter>
#include <QPainterPath>
#include <QLineEdit>
#include <QPalette>
#include <QScrollArea>
#include <QScrollBar>
#include <QWidget>

#include <cmath>

namespace Theme {

namespace {

QColor textBase()
{
    return QApplication::palette().color(QPalette::Active, QPalette::WindowText);
}

QColor withAlpha(QColor c, qreal alpha)
{
    c.setAlphaF(static_cast<float>(alpha));
    return c;
}

// Inter where installed (fonts-inter), otherwise the desktop's sans-serif.
QString uiFamily()
{
    static const QString family = [] {
        const QStringList families = QFontDatabase::families();
        for (const QString& f : {QStringLiteral("Inter"), QStringLiteral("Cantarell"), QStringLiteral("DejaVu Sans")}) {
            if (families.contains(f))
                return f;
        }
        return QFontDatabase::systemFont(QFontDatabase::GeneralFont).family();
    }();
    return family;
}

QString monoFamily()
{
    static const QString family = [] {
        const QStringList families = QFontDatabase::families();
        if (families.contains(QStringLiteral("DejaVu Sans Mono")))
            return QStringLiteral("DejaVu Sans Mono");
        return QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
    }();
    return family;
}

}  // namespace

QColor primaryText() { return withAlpha(textBase(), 0.88); }
QColor secondaryText() { return withAlpha(textBase(), 0.55); }
QColor tertiaryText() { return withAlpha(textBase(), 0.35); }
QColor secondaryFill(qreal opacity) { return withAlpha(textBase(), 0.55 * opacity); }
QColor systemBlue() { return QColor(0, 122, 255); }
QColor systemOrange() { return QColor(255, 149, 0); }

QFont font(TextStyle style, QFont::Weight weight, bool monospaced)
{
    QFont f(monospaced ? monoFamily() : uiFamily());
    int px = 13;
    QFont::Weight w = weight;
    switch (style) {
    case TextStyle::title: px = 26; break;
    case TextStyle::title2: px = 20; break;
    case TextStyle::headline:
        px = 14;
        if (w == QFont::Normal)
            w = QFont::DemiBold;
        break;
    case TextStyle::body: px = 13; break;
    case TextStyle::callout: px = 13; break;
    case TextStyle::subheadline: px = 12; break;
    case TextStyle::caption: px = 11; break;
    case TextStyle::caption2: px = 10; break;
    }
    if (monospaced)
        px -= 1;  // the monospaced face runs wider than the text face
    f.setPixelSize(px);
    f.setWeight(w);
    f.setStyleHint(monospaced ? QFont::Monospace : QFont::SansSerif);
    return f;
}

void paintSymbol(QPainter& p, Symbol symbol, const QRectF& r, const QColor& color)
{
    p.save();
    p.setRenderHint(QPainter::Antialiasing);
    p.translate(r.topLeft());
    const qreal s = std::min(r.width(), r.height());
    p.translate((r.width() - s) / 2, (r.height() - s) / 2);
    p.scale(s / 24.0, s / 24.0);  // every glyph is drawn on a 24-unit square
    QPen pen(color, 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.setPen(pen);
    p.setBrush(Qt::NoBrush);

    switch (symbol) {
    case Symbol::mic: {
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawRoundedRect(QRectF(8.5, 2.5, 7, 12.5), 3.5, 3.5);
        p.setPen(pen);
        p.setBrush(Qt::NoBrush);
        QPainterPath cup;
        cup.moveTo(5.5, 11);
        cup.cubicTo(5.5, 19.5, 18.5, 19.5, 18.5, 11);
        p.drawPath(cup);
        p.drawLine(QPointF(12, 17.5), QPointF(12, 21));
        p.drawLine(QPointF(8.5, 21.2), QPointF(15.5, 21.2));
        break;
    }
    case Symbol::hands: {
        // A raised open hand with a spark: hands-free.
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawRoundedRect(QRectF(6.2, 10, 11.6, 11.5), 4.2, 4.2);
        const qreal fingers[4][2] = {{6.2, 5.6}, {9.2, 3.2}, {12.2, 3.6}, {15.2, 6.0}};
        for (const auto& f : fingers)
            p.drawRoundedRect(QRectF(f[0], f[1], 2.6, 13 - f[1]), 1.3, 1.3);
        p.save();
        p.translate(6.8, 15.8);
        p.rotate(-40);
        p.drawRoundedRect(QRectF(-6.2, -1.4, 7, 2.8), 1.4, 1.4);
        p.restore();
        QPainterPath spark;
        const QPointF c0(20.2, 4.2);
        spark.moveTo(c0 + QPointF(0, -3.2));
        spark.quadTo(c0, c0 + QPointF(3.2, 0));
        spark.quadTo(c0, c0 + QPointF(0, 3.2));
        spark.quadTo(c0, c0 + QPointF(-3.2, 0));
        spark.quadTo(c0, c0 + QPointF(0, -3.2));
        p.drawPath(spark);
        break;
    }
    case Symbol::textCursor:
        p.drawLine(QPointF(12, 4), QPointF(12, 20));
        p.drawLine(QPointF(8, 3.5), QPointF(10.5, 3.5));
        p.drawLine(QPointF(13.5, 3.5), QPointF(16, 3.5));
        p.drawLine(QPointF(8, 20.5), QPointF(10.5, 20.5));
        p.drawLine(QPointF(13.5, 20.5), QPointF(16, 20.5));
        p.drawArc(QRectF(8, 3.5, 4, 4), 90 * 16, -90 * 16);
        break;
    case Symbol::keyboard: {
        p.setPen(QPen(color, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawRoundedRect(QRectF(2, 6, 20, 13), 2.5, 2.5);
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        for (int row = 0; row < 2; ++row)
            for (int col = 0; col < 5; ++col)
                p.drawRoundedRect(QRectF(4.6 + col * 3.2, 8.6 + row * 3.2, 1.8, 1.8), 0.4, 0.4);
        p.drawRoundedRect(QRectF(7.5, 15.2, 9, 1.7), 0.6, 0.6);
        break;
    }
    case Symbol::checkmarkCircle: {
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawEllipse(QRectF(1.5, 1.5, 21, 21));
        p.setPen(QPen(Qt::white, 2.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.setBrush(Qt::NoBrush);
        p.drawPolyline(QPolygonF({QPointF(7, 12.3), QPointF(10.5, 15.8), QPointF(17, 8.7)}));
        break;
    }
    case Symbol::checkmark:
        p.setPen(QPen(color, 2.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawPolyline(QPolygonF({QPointF(4.5, 12.5), QPointF(9.5, 17.5), QPointF(19.5, 6.5)}));
        break;
    case Symbol::trash:
        p.setPen(QPen(color, 1.7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawLine(QPointF(3.5, 6), QPointF(20.5, 6));
        p.drawPolyline(QPolygonF({QPointF(9, 6), QPointF(9, 3.5), QPointF(15, 3.5), QPointF(15, 6)}));
        p.drawPolyline(QPolygonF({QPointF(5.5, 6), QPointF(6.7, 20.5), QPointF(17.3, 20.5), QPointF(18.5, 6)}));
        p.drawLine(QPointF(10, 10), QPointF(10, 17));
        p.drawLine(QPointF(14, 10), QPointF(14, 17));
        break;
    case Symbol::plusCircle:
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawEllipse(QRectF(1.5, 1.5, 21, 21));
        p.setPen(QPen(Qt::white, 2.4, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(QPointF(12, 7), QPointF(12, 17));
        p.drawLine(QPointF(7, 12), QPointF(17, 12));
        break;
    case Symbol::docOnDoc:
        p.setPen(QPen(color, 1.7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawRoundedRect(QRectF(8, 7, 12, 14.5), 2.2, 2.2);
        p.drawPolyline(QPolygonF({QPointF(5.5, 17), QPointF(4, 17), QPointF(4, 2.5), QPointF(15.5, 2.5), QPointF(15.5, 4.5)}));
        break;
    case Symbol::arrowClockwise: {
        p.setPen(QPen(color, 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawArc(QRectF(4, 4, 16, 16), 70 * 16, 290 * 16);
        // Arrow head at the arc's open end (top, pointing right).
        p.setPen(Qt::NoPen);
        p.setBrush(color);
        p.drawPolygon(QPolygonF({QPointF(12.3, 0.8), QPointF(17.6, 4.2), QPointF(12.3, 7.6)}));
        break;
    }
    case Symbol::house:
        p.setPen(QPen(color, 1.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawPolyline(QPolygonF({QPointF(2.5, 11.5), QPointF(12, 3.5), QPointF(21.5, 11.5)}));
        p.drawPolyline(QPolygonF({QPointF(5.5, 9.5), QPointF(5.5, 20.5), QPointF(18.5, 20.5), QPointF(18.5, 9.5)}));
        p.drawPolyline(QPolygonF({QPointF(10, 20.5), QPointF(10, 14.5), QPointF(14, 14.5), QPointF(14, 20.5)}));
        break;
    case Symbol::globe:
        p.setPen(QPen(color, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawEllipse(QRectF(2.5, 2.5, 19, 19));
        p.drawEllipse(QRectF(7.5, 2.5, 9, 19));
        p.drawLine(QPointF(12, 2.5), QPointF(12, 21.5));
        p.drawLine(QPointF(2.5, 12), QPointF(21.5, 12));
        p.drawArc(QRectF(4, -4, 16, 12), 200 * 16, 140 * 16);
        p.drawArc(QRectF(4, 16, 16, 12), 20 * 16, 140 * 16);
        break;
    case Symbol::arrowUpRight:
        p.setPen(QPen(color, 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.drawLine(QPointF(6, 18), QPointF(18, 6));
        p.drawPolyline(QPolygonF({QPointF(8.5, 6), QPointF(18, 6), QPointF(18, 15.5)}));
        break;
    }
    p.restore();
}

QPixmap symbolPixmap(Symbol symbol, const QColor& color, int size, qreal dpr)
{
    QPixmap pm(QSize(size, size) * dpr);
    pm.setDevicePixelRatio(dpr);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    paintSymbol(p, symbol, QRectF(0, 0, size, size), color);
    return pm;
}

QIcon symbolIcon(Symbol symbol, const QColor& color, int size)
{
    QIcon icon;
    icon.addPixmap(symbolPixmap(symbol, color, size, 1.0));
    icon.addPixmap(symbolPixmap(symbol, color, size, 2.0));
    return icon;
}

QPixmap appIcon(int size, qreal dpr)
{
    QPixmap pm(QSize(size, size) * dpr);
    pm.setDevicePixelRatio(dpr);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    const QRectF square(s * 0.04, s * 0.04, s * 0.92, s * 0.92);
    QLinearGradient g(square.topLeft(), square.bottomLeft());
    g.setColorAt(0, brandGreen().lighter(118));
    g.setColorAt(1, brandGreen().darker(112));
    p.setPen(Qt::NoPen);
    p.setBrush(g);
    p.drawRoundedRect(square, s * 0.22, s * 0.22);
    // Sound bars either side of a microphone.
    p.setBrush(QColor(255, 255, 255, 150));
    const qreal barW = s * 0.055;
    const qreal heights[] = {0.16, 0.30, 0.30, 0.16};
    const qreal xs[] = {0.17, 0.27, 0.675, 0.775};
    for (int i = 0; i < 4; ++i) {
        const qreal h = s * heights[i];
        p.drawRoundedRect(QRectF(s * xs[i], s * 0.47 - h / 2, barW, h), barW / 2, barW / 2);
    }
    paintSymbol(p, Symbol::mic, QRectF(s * 0.26, s * 0.22, s * 0.48, s * 0.56), Qt::white);
    return pm;
}

void styleField(QLineEdit* field)
{
    const QColor green = brandGreen();
    field->setStyleSheet(QStringLiteral("QLineEdit { border: 1px solid rgba(128, 128, 128, 0.45); border-radius: 6px;"
                                        " padding: 4px 7px; background: palette(base); }"
                                        "QLineEdit:focus { border: 1px solid rgb(%1, %2, %3); }")
                             .arg(green.red())
                             .arg(green.green())
                             .arg(green.blue()));
}

void styleScrollBar(QScrollArea* area)
{
    area->verticalScrollBar()->setStyleSheet(QStringLiteral(
        "QScrollBar:vertical { background: transparent; width: 10px; margin: 4px 2px 4px 0; }"
        "QScrollBar::handle:vertical { background: rgba(0, 0, 0, 0.22); border-radius: 4px; min-height: 30px; }"
        "QScrollBar::handle:vertical:hover { background: rgba(0, 0, 0, 0.35); }"
        "QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical { height: 0; }"
        "QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical { background: transparent; }"));
}

QWidget* makeDivider(QWidget* parent)
{
    auto* line = new QWidget(parent);
    line->setFixedHeight(1);
    line->setAutoFillBackground(true);
    QPalette pal = line->palette();
    pal.setColor(QPalette::Window, secondaryFill(0.22));
    line->setPalette(pal);
    return line;
}

void setTextColor(QWidget* widget, const QColor& color)
{
    QPalette pal = widget->palette();
    pal.setColor(QPalette::WindowText, color);
    pal.setColor(QPalette::Text, color);
    pal.setColor(QPalette::ButtonText, color);
    widget->setPalette(pal);
}

}  // namespace Theme
