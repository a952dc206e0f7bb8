#pragma once

#include <QAbstractButton>

// A tab button: a capsule, brand green with white text when selected, a light neutral otherwise.
class TabPill final : public QAbstractButton {
    Q_OBJECT
public:
    explicit TabPill(const QString& title, QWidget* parent = nullptr);

    bool selected() const { return selected_; }
    void setSelected(bool selected);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    bool selected_ = false;
};
