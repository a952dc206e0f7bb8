#pragma once

#include <QObject>
#include <QPointer>

class QWidget;

// Owns the About window: made on the first show() and kept; closing it only hides it.
class AboutWindowController final : public QObject {
    Q_OBJECT
public:
    explicit AboutWindowController(QObject* parent = nullptr);
    ~AboutWindowController() override;

    void show();
    QWidget* window() const { return window_; }

private:
    QPointer<QWidget> window_;
};
