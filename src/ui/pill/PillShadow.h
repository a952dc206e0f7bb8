#pragma once

#include <QWidget>

// A soft shadow under the pill, in a window of its own just behind it. It is shown only where a
// compositing manager blends translucent pixels; without one the capsule keeps its clean, cut edge.
// Being a separate window it leaves the pill's own size and place alone, and it never takes a click
// or the focus.
class PillShadow final : public QWidget {
    Q_OBJECT
public:
    static constexpr int spread = 6;   // how far the shadow reaches beyond the capsule
    static constexpr int drop = 2;     // how far below the capsule it sits

    PillShadow();

    // Behind `pill` at its size when it is shown and a compositor runs, else hidden. Callers raise
    // the pill afterwards.
    void follow(const QWidget& pill);

protected:
    void paintEvent(QPaintEvent* event) override;
};
