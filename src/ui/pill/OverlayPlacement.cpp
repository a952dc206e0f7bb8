#include "ui/pill/OverlayPlacement.h"

#include <cmath>

namespace OverlayPlacement {

std::optional<QPoint> initialOrigin(std::optional<double> centerX, std::optional<double> topY,
                                    const QList<QRect>& screens, std::optional<QRect> primaryAvailable)
{
    if (centerX && topY && std::isfinite(*centerX) && std::isfinite(*topY)) {
        // The saved place is tested at the idle size, whatever width the pill has now.
        const double x = *centerX - idleWidth * 0.5;
        const QRectF saved(x, *topY, idleWidth, pillHeight);
        for (const QRect& screen : screens) {
            if (QRectF(screen).intersects(saved))
                return QPoint(static_cast<int>(std::lround(x)), static_cast<int>(std::lround(*topY)));
        }
    }
    if (!primaryAvailable)
        return std::nullopt;
    const QRect& area = *primaryAvailable;
    const double cx = area.x() + area.width() * 0.5;
    return QPoint(static_cast<int>(std::lround(cx - idleWidth * 0.5)), area.y() + topGap);
}

QRect resized(const QRect& frame, int width)
{
    const double cx = frame.x() + frame.width() * 0.5;
    return {static_cast<int>(std::lround(cx - width * 0.5)), frame.y(), width, pillHeight};
}

double centerX(const QRect& frame)
{
    return frame.x() + frame.width() * 0.5;
}

double topY(const QRect& frame)
{
    return frame.y();
}

}  // namespace OverlayPlacement
