#pragma once

#include <QWidget>

#include <array>

class CompareModel;
class QLabel;

// The four cleanup results of one passage, stacked, under the status line; follows the model live.
class CompareView final : public QWidget {
    Q_OBJECT
public:
    explicit CompareView(CompareModel& model, QWidget* parent = nullptr);

    // Raw, Tidy, Bullets, Summary.
    QLabel* body(int index) const { return bodies_[static_cast<size_t>(index)]; }
    QLabel* statusLabel() const { return status_; }
    // Puts one block's current text on the clipboard (also when it is empty).
    void copyBlock(int index);

private:
    void refresh();
    QString textOf(int index) const;

    CompareModel& model_;
    QLabel* status_;
    std::array<QLabel*, 4> bodies_{};
};
