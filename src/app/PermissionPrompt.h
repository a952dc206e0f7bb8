#pragma once

#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <functional>

// The small floating panel that tells the user what Tolvane cannot do yet and where to fix it.
// At most one is on screen.
class PermissionPrompt final {
public:
    struct Texts {
        QString title;
        QString message;
        QString openButtonTitle;
        // Settings programs to try, in order, at once and from the open button; the first one found
        // on PATH is started. Empty: the button shows Tolvane's own Settings.
        QStringList settingsCommands;
    };
    static const Texts microphone;
    static const Texts speech;
    static const Texts accessibility;
    // The accessibility prompt of a Wayland session, where the keys are read from /dev/input.
    static const Texts inputDevices;

    // Builds the panel, makes it the current prompt and opens the settings URL.
    static void show(const Texts& texts);
    static void dismiss();
    static QWidget* currentPanel();
    // Shows Tolvane's Settings for prompts that have no desktop settings program.
    static inline std::function<void()> showOwnSettings;

private:
    static QPointer<QWidget> current_;
};
