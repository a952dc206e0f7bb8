#pragma once

#include <QList>
#include <QRect>

#include <optional>

// Where the pill goes, in Qt's global coordinates (origin at the top left of the virtual desktop,
// y growing downwards). Pure so it can be checked without a display.
namespace OverlayPlacement {

inline constexpr int pillHeight = 22;
inline constexpr int idleWidth = 46;
inline constexpr int expandedWidth = 68;
// The default place: centred on the primary screen, this far below the top of its usable area.
inline constexpr int topGap = 8;

// The origin of the idle pill. A saved centre and top edge are used when the idle-sized pill there
// still touches one of the screens; otherwise the pill goes to the default place on the primary
// screen's usable area. Without any screen there is no answer and the pill stays where it is.
std::optional<QPoint> initialOrigin(std::optional<double> centerX, std::optional<double> topY,
                                    const QList<QRect>& screens, std::optional<QRect> primaryAvailable);

// The frame after a change of width: the horizontal centre and the top edge stay where they are.
QRect resized(const QRect& frame, int width);

// What is remembered after a move: the horizontal centre and the top edge.
double centerX(const QRect& frame);
double topY(const QRect& frame);

}  // namespace OverlayPlacement
