#include "ui/pill/WaveformGeometry.h"

#include <algorithm>

namespace WaveformGeometry {

double sideInset(bool buttonsVisible)
{
    return buttonsVisible ? buttonMargin + btnSize + 1.0 : 6.0;
}

QRectF barRect(int i, QSizeF view, double height, bool buttonsVisible)
{
    const double s = sideInset(buttonsVisible);
    const double inner = std::max(0.0, view.width() - 2 * s);
    const double group = barCount * barWidth + (barCount - 1) * barSpacing;
    const double offset = std::max(0.0, (inner - group) * 0.5);
    const double b = std::max(height, minLine);
    return {s + offset + (barWidth + barSpacing) * i, view.height() * 0.5 - b * 0.5, barWidth, b};
}

QRectF acceptButtonRect(QSizeF view)
{
    return {buttonMargin, (view.height() - btnSize) * 0.5, btnSize, btnSize};
}

QRectF trashButtonRect(QSizeF view)
{
    return {view.width() - btnSize - buttonMargin, (view.height() - btnSize) * 0.5, btnSize, btnSize};
}

QRectF spinnerRect(QSizeF view, bool buttonsVisible)
{
    const double s = sideInset(buttonsVisible);
    const double inner = std::max(0.0, view.width() - 2 * s);
    const double d = std::max(0.0, std::min(view.height() - 8.0, 14.0));
    const double cx = s + inner * 0.5;
    const double cy = view.height() * 0.5;
    return {cx - d * 0.5, cy - d * 0.5, d, d};
}

double spinnerRadius(double d)
{
    return std::max(0.0, d * 0.5 - spinnerLineWidth * 0.5);
}

}  // namespace WaveformGeometry
