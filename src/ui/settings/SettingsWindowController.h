#pragma once

#include "core/Collaborators.h"
#include "ui/settings/SettingsServices.h"

#include <QObject>
#include <QPointer>

class QTimer;
class QWidget;
#include "ui/settings/SettingsView.h"

// Owns the Settings window: built on the first show() and kept; it hides itself a quarter of a
// second after it stops being the active window unless it becomes active again meanwhile.
class SettingsWindowController final : public QObject, public AbstractSettingsWindow {
    Q_OBJECT
public:
    static constexpr int hideDelayMilliseconds = 250;

    explicit SettingsWindowController(SettingsServices services = {}, QObject* parent = nullptr);
    ~SettingsWindowController() override;

    void show() override;
    bool isKeyWindow() const override;
    // Brings the window back to the front on the next turn of the event loop.
    void reassert();

    QWidget* window() const { return window_; }
    SettingsView* view() const { return view_; }
    bool hidePending() const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void build();
    void bringToFront(int retries);
    void windowDidResignKey();
    void windowDidBecomeKey();

    SettingsServices services_;
    QPointer<QWidget> window_;
    QPointer<SettingsView> view_;
    QTimer* closeWork_;
};
