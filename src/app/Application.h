#pragma once

#include "app/Bootstrap.h"
#include "app/SingleInstance.h"
#include "dictation/AppDelegate.h"
#include "text/CleanupEngine.h"
#include "ui/settings/SettingsWindowController.h"
#include "ui/tray/UpdateChecker.h"
#include "ui/windows/AboutWindowController.h"
#include "ui/windows/CompareWindowController.h"

#include <QObject>
#include <QPointer>

#include <memory>

// The running tray application: the dictation controller with the real collaborators of an X11
// desktop, its windows, and the one-instance rule. Made after the QApplication.
class EvdevHotkeyManager;
class TextInjector;
class WaylandTextInjector;

class Application final : public QObject {
    Q_OBJECT
public:
    explicit Application(QObject* parent = nullptr);
    ~Application() override;

    // False when another Tolvane already runs (it was asked to show its Settings).
    bool launch(bool openSettings = false);

private:
    Bootstrap::Factory platformFactory();

    AppDelegate delegate_;
    CleanupEngine cleanup_;
    SettingsWindowController settings_;
    AboutWindowController about_;
    CompareWindowController compare_;
    UpdateChecker updates_;
    SingleInstance single_;
    std::unique_ptr<Bootstrap> bootstrap_;
    QPointer<TextInjector> injector_;
    QPointer<WaylandTextInjector> waylandInjector_;
    QPointer<EvdevHotkeyManager> evdevHotkey_;
};
