#include "ui/widgets/Card.h"

#include <QLabel>
#include <QLayout>
#include <QScrollArea>
#include <QStackedLayout>

#include "ui/widgets/Theme.h"

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

QStackedLayout* listOrEmptyText(QLabel* empty, const QMargins& margins, int spacing, QVBoxLayout** rows)
{
    auto* stack = new QStackedLayout;
    empty->setAlignment(Qt::AlignCenter);
    stack->addWidget(empty);
    auto* scroll = new QScrollArea;
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    Theme::styleScrollBar(scroll);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* column = new QWidget;
    *rows = new QVBoxLayout(column);
    (*rows)->setContentsMargins(margins);
    (*rows)->setSpacing(spacing);
    scroll->setWidget(column);
    stack->addWidget(scroll);
    return stack;
}
