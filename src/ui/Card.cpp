#include "ui/Card.h"

#include <QLayout>

#include "ui/Theme.h"

#include <QPainter>

Card::Card(qreal radius, qreal fillOpacity, QWidget* parent)
    : QWidget(parent), radius_(radius), fillOpacity_(fillOpacity)
{
}

void Card::setOutline(qreal opacity, qreal width)
{
    outlineOpacity_ = opacity;
    outlineWidth_ = width;
    update();
}

void Card::setFillColor(const QColor& color)
{
    fillColor_ = color;
    update();
}

void Card::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal inset = outlineWidth_ / 2;
    const QRectF r = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    p.setBrush(fillColor_.isValid() ? fillColor_ : Theme::secondaryFill(fillOpacity_));
    if (outlineWidth_ > 0)
        p.setPen(QPen(Theme::secondaryFill(outlineOpacity_), outlineWidth_));
    else
        p.setPen(Qt::NoPen);
    p.drawRoundedRect(r, radius_, radius_);
}

void removeRowsLater(QLayout* rows)
{
    while (QLayoutItem* item = rows->takeAt(0)) {
        if (QWidget* w = item->widget()) {
            w->hide();
            w->deleteLater();
        }
        delete item;
    }
}
