#pragma once

#include "core/ActivationKey.h"

#include <QWidget>

class QLabel;

// One line that turns green for 1.3 seconds when the chosen activation key reaches this
// application. It watches only Tolvane's own key events (an application event filter while the
// line is shown), never the system-wide monitor.
class HotkeyTester final : public QWidget {
    Q_OBJECT
    Q_PROPERTY(bool detected READ detected NOTIFY detectedChanged)
public:
    static constexpr int detectedMilliseconds = 1300;

    explicit HotkeyTester(ActivationKey key, QWidget* parent = nullptr);
    ~HotkeyTester() override;

    ActivationKey key() const { return key_; }
    void setKey(ActivationKey key);
    bool detected() const { return detected_; }
    QString text() const;

Q_SIGNALS:
    void detectedChanged(bool detected);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void addMonitor();
    void removeMonitor();
    void setDetected(bool on);
    void refresh();

    ActivationKey key_;
    bool detected_ = false;
    bool monitoring_ = false;
    QLabel* icon_;
    QLabel* label_;
};
