#include "ui/widgets/TabPill.h"

#include "ui/widgets/Theme.h"

#include <QPainter>

TabPill::TabPill(const QString& title, QWidget* parent) : QAbstractButton(parent)
{
    setText(title);
    setFont(Theme::font(Theme::TextStyle::subheadline, QFont::DemiBold));
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void TabPill::setSelected(bool selected)
{
    if (selected_ == selected)
        return;
    selected_ = selected;
    update();
}

QSize TabPill::sizeHint() const
{
    const QFontMetrics fm(font());
    return {fm.horizontalAdvance(text()) + 32, fm.height() + 12};
}

void TabPill::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF r = QRectF(rect());
    QColor fill = selected_ ? brandGreen() : Theme::secondaryFill(0.15);
    if (isDown())
        fill = selected_ ? brandGreen().darker(115) : Theme::secondaryFill(0.25);
    p.setPen(Qt::NoPen);
    p.setBrush(fill);
    p.drawRoundedRect(r, r.height() / 2, r.height() / 2);
    p.setPen(selected_ ? QColor(Qt::white) : Theme::primaryText());
    p.setFont(font());
    p.drawText(r, Qt::AlignCenter, text());
}
