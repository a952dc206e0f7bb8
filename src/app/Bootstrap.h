#pragma once

#include "app/PermissionPrompt.h"
#include "core/Collaborators.h"

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <functional>
#include <memory>

class AppDelegate;

// Start-up: the tray, the permission checks, preparing the transcriber, wiring every collaborator
// to the dictation controller, and keeping the activation key and language live. The platform
// pieces come from a factory so the sequence can be exercised with fakes.
class Bootstrap final : public QObject {
    Q_OBJECT
public:
    struct Factory {
        std::function<std::unique_ptr<AbstractMenuBar>()> menuBar;
        std::function<std::unique_ptr<AbstractTextInjector>()> injector;
        std::function<std::unique_ptr<AbstractOverlay>()> overlay;
        std::function<std::unique_ptr<AbstractAudioEngine>()> audio;
        std::function<std::unique_ptr<AbstractTranscriber>()> transcriber;
        std::function<std::unique_ptr<AbstractHotkeyManager>()> hotkey;
        std::function<QCoro::Task<bool>()> requestMicrophone;
        std::function<QCoro::Task<bool>(AbstractTranscriber&)> requestSpeech;
        // Shows the fatal alert and ends the application.
        std::function<void(const QString& title, const QString& message)> showBlockingError;
        std::function<void()> checkForUpdates;
        std::function<void()> showAbout;
        std::function<void(bool showInTaskbar)> applyDockIconPolicy;
        // What the prompt says while the key monitor cannot start.
        const PermissionPrompt::Texts* keyMonitorPrompt = &PermissionPrompt::accessibility;
    };

    Bootstrap(AppDelegate& delegate, Factory factory, QObject* parent = nullptr);
    ~Bootstrap() override;

    static constexpr int accessibilityPollMs = 1000;
    static constexpr int microphonePollMs = 1000;

    // The launch handler: tray, updater, then the bootstrap task.
    void applicationDidFinishLaunching();
    QCoro::Task<> bootstrap();
    QCoro::Task<> completeSetup();
    // The pill, made once: early when there is no tray, else when dictation is set up.
    void installOverlay();
    void startAccessibilityPolling();
    void reprepareLocale();
    // A second launch asked this one to come forward.
    void applicationShouldHandleReopen();

    bool accessibilityPolling() const { return accessibilityTimer_.isActive(); }
    // Resolves when the bootstrap task has run to its end (ready, prompting, or stopped).
    bool finished() const { return finished_; }

Q_SIGNALS:
    void bootstrapFinished();

private:
    AppDelegate& delegate_;
    Factory factory_;
    std::unique_ptr<AbstractMenuBar> menuBar_;
    std::unique_ptr<AbstractTextInjector> injector_;
    std::unique_ptr<AbstractOverlay> overlay_;
    std::unique_ptr<AbstractAudioEngine> audio_;
    std::unique_ptr<AbstractTranscriber> transcriber_;
    std::unique_ptr<AbstractHotkeyManager> hotkey_;
    QTimer accessibilityTimer_;
    bool finished_ = false;
};
