#pragma once

#include <QMargins>
#include <QWidget>

class QLabel;
class QLayout;
class QStackedLayout;
class QVBoxLayout;

// A rounded panel behind grouped content: the neutral fill at a given opacity, optionally outlined.
class Card : public QWidget {
    Q_OBJECT
public:
    explicit Card(qreal radius = 12, qreal fillOpacity = 0.1, QWidget* parent = nullptr);
    void setOutline(qreal opacity, qreal width);
    void setFillColor(const QColor& color);  // overrides the neutral fill

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    qreal radius_;
    qreal fillOpacity_;
    qreal outlineOpacity_ = 0;
    qreal outlineWidth_ = 0;
    QColor fillColor_;
};

// Empties a list of rows. The widgets go later, since a button of one of them may be the one whose
// click is being handled.
void removeRowsLater(QLayout* rows);

// A list that gives way to a centred text while it has no rows: page 0 of the stack is `empty`,
// page 1 a scrolling column whose layout is put in `rows`.
QStackedLayout* listOrEmptyText(QLabel* empty, const QMargins& margins, int spacing, QVBoxLayout** rows);
