#pragma once

#include <QWidget>

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
