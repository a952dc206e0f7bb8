#pragma once

#include "core/Collaborators.h"
#include "dictation/CompareModel.h"

#include <QObject>
#include <QPointer>

#include <optional>

class QWidget;

// Owns the comparison window (built on first show and kept) and its model.
class CompareWindowController final : public QObject, public AbstractCompareWindow {
    Q_OBJECT
public:
    // Content height for a screen whose usable area is that high (none: no screen).
    static int contentHeight(std::optional<int> visibleScreenHeight);

    explicit CompareWindowController(QObject* parent = nullptr);
    ~CompareWindowController() override;

    CompareModel& model() override { return model_; }
    // Resets the model for a new passage and shows the window.
    void arm() override;
    void show();
    QWidget* window() const { return window_; }

private:
    void build();

    CompareModel model_;
    QPointer<QWidget> window_;
};
