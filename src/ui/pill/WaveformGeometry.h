#pragma once

#include <QRectF>
#include <QSizeF>

#include <array>

// Where the pill's parts sit, in the view's own coordinates (origin top left, points). Pure so it
// can be checked without a display.
namespace WaveformGeometry {

inline constexpr int barCount = 3;
inline constexpr double barWidth = 4.0;
inline constexpr double barSpacing = 2.0;
inline constexpr double btnSize = 14.0;
inline constexpr double buttonMargin = 3.0;
inline constexpr double minLine = 3.0;
inline constexpr double spinnerLineWidth = 2.2;
// Per-bar height factor: the middle bar is the tallest.
inline constexpr std::array<double, barCount> shape{0.7, 1.0, 0.7};

using Heights = std::array<double, barCount>;

// 6 without buttons, 18 with either one (margin + button + 1), so the bars clear the buttons.
double sideInset(bool buttonsVisible);
// Bar i, its height clamped to minLine; the group is centred between the insets, each bar vertically.
QRectF barRect(int i, QSizeF view, double height, bool buttonsVisible);
// The insert (left) and discard (right) buttons, vertically centred.
QRectF acceptButtonRect(QSizeF view);
QRectF trashButtonRect(QSizeF view);
// The spinner's square, centred between the insets; its side is min(height - 8, 14).
QRectF spinnerRect(QSizeF view, bool buttonsVisible);
// Radius of the ring's centre line inside a spinner of side d.
double spinnerRadius(double d);

}  // namespace WaveformGeometry
