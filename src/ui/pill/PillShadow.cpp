#include "ui/pill/PillShadow.h"

#include "ui/x11/X11Desktop.h"

#include <QPainter>

PillShadow::PillShadow()
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                           Qt::WindowTransparentForInput | X11Desktop::overlayHint())
{
    setWindowTitle(QStringLiteral("Tolvane shadow"));
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_X11DoNotAcceptFocus);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_QuitOnClose, false);
    setFocusPolicy(Qt::NoFocus);
}

void PillShadow::follow(const QWidget& pill)
{
    if (!pill.isVisible() || !X11Desktop::compositingActive()) {
        hide();
        return;
    }
    setGeometry(pill.geometry().adjusted(-spread, -spread + drop, spread, spread + drop));
    setWindowOpacity(pill.windowOpacity());
    if (!isVisible()) {
        show();
        X11Desktop::showOnAllDesktops(this);
    }
}

void PillShadow::paintEvent(QPaintEvent*)
{
    // Capsules growing outwards, each fainter than the one inside it: a blur without a blur pass.
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    const QRectF capsule = QRectF(rect()).adjusted(spread, spread, -spread, -spread);
    for (int grow = spread; grow >= 1; --grow) {
        const QRectF r = capsule.adjusted(-grow, -grow, grow, grow);
        const double fade = 1.0 - double(grow) / (spread + 1);
        p.setBrush(QColor(0, 0, 0, int(18 * fade * fade)));
        p.drawRoundedRect(r, r.height() / 2, r.height() / 2);
    }
}
