#include "ui/widgets/ToggleSwitch.h"

#include "ui/widgets/Theme.h"

#include <QPainter>

ToggleSwitch::ToggleSwitch(QWidget* parent) : QAbstractButton(parent)
{
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize ToggleSwitch::sizeHint() const { return {38, 22}; }

void ToggleSwitch::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
    QColor on = brandGreen();
    QColor off = Theme::secondaryFill(0.35);
    if (!isEnabled()) {
        on.setAlphaF(0.45f);
        off.setAlphaF(off.alphaF() * 0.6f);
    }
    p.setPen(Qt::NoPen);
    p.setBrush(isChecked() ? on : off);
    p.drawRoundedRect(track, track.height() / 2, track.height() / 2);
    const qreal d = track.height() - 4;
    const qreal x = isChecked() ? track.right() - 2 - d : track.left() + 2;
    p.setBrush(QColor(0, 0, 0, 40));
    p.drawEllipse(QRectF(x, track.top() + 2.6, d, d));
    p.setBrush(Qt::white);
    p.drawEllipse(QRectF(x, track.top() + 2, d, d));
    if (hasFocus()) {
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(brandGreen().lighter(130), 1.5));
        p.drawRoundedRect(track.adjusted(-0.5, -0.5, 0.5, 0.5), track.height() / 2, track.height() / 2);
    }
}
