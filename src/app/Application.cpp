#include "app/Application.h"

#include "app/PermissionPrompt.h"
#include "audio/AudioEngineController.h"
#include "audio/MicrophoneSource.h"
#include "keyboard/evdev/EvdevHotkeyManager.h"
#include "keyboard/evdev/InputAccess.h"
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/wayland/WaylandTextInjector.h"
#include "keyboard/x11/TextInjector.h"
#include "speech/TranscriberController.h"
#include "storage/Diagnostics.h"
#include "storage/TranscriptStore.h"
#include "ui/pill/OverlayController.h"
#include "ui/settings/SettingsView.h"
#include "ui/tray/MenuBarController.h"
#include "ui/widgets/TaskbarPresence.h"

#include "storage/Preferences.h"

#include <QApplication>
#include <QMessageBox>
#include <QTimer>

namespace {

SettingsServices settingsServices(CleanupEngine& cleanup, std::function<bool()> fnKeyPresent)
{
    SettingsServices services;
    services.supportedLocales = [] { return TranscriberController::supportedLocaleIdentifiers(); };
    services.cleanupAvailability = [&cleanup] { return cleanup.checkAvailability(); };
    services.keyboardNotice = &InputAccess::chordSpaceNotice;
    services.offersKey = [fnKeyPresent](ActivationKey key) { return key != ActivationKey::fn || fnKeyPresent(); };
    services.speechAvailability = [] {
        return ServerSpeechEngine::checkAvailability(
            ServerSpeechEngine::Config::fromPreferences(Preferences::shared().localeIdentifier()));
    };
    return services;
}

// A microphone exists when the sound server names a default input Qt can open.
QCoro::Task<bool> requestMicrophone()
{
    try {
        MicrophoneSource probe;
        probe.inputFormat();
        co_return true;
    } catch (const std::exception& e) {
        // Asked again every second while none is there: say each new reason once.
        static QString lastReason;
        if (const QString reason = describeError(e); reason != lastReason)
            Diagnostics::log(QStringLiteral("bootstrap: no microphone: ") + (lastReason = reason));
        co_return false;
    }
}

// Speech is possible when some language has an installed or installable model.
QCoro::Task<bool> requestSpeech(AbstractTranscriber&)
{
    const QStringList locales = co_await TranscriberController::supportedLocaleIdentifiers();
    co_return !locales.isEmpty();
}

}  // namespace

Application::Application(QObject* parent) : QObject(parent), settings_(settingsServices(cleanup_, [this] {
          // A Wayland session knows whether some keyboard reports Fn; X11 cannot tell.
          return !InputAccess::waylandSession() || (evdevHotkey_ && evdevHotkey_->fnKeyPresent());
      }))
{
    delegate_.settingsWindow = &settings_;
    delegate_.cleanup = &cleanup_;
    delegate_.compareWindow = &compare_;
    PermissionPrompt::showOwnSettings = [this] { settings_.show(); };
}

Application::~Application()
{
    bootstrap_.reset();
    TranscriptStore::shared().waitForWrites();
}

bool Application::launch(bool openSettings)
{
    if (single_.notifyRunningInstance())
        return false;
    single_.listen([this](SingleInstance::Request request) {
        if (request == SingleInstance::Request::quit)
            QCoreApplication::quit();
        else if (bootstrap_)
            bootstrap_->applicationShouldHandleReopen();
    });
    bootstrap_ = std::make_unique<Bootstrap>(delegate_, platformFactory());
    bootstrap_->applicationDidFinishLaunching();
    if (openSettings)
        settings_.show();
    return true;
}

Bootstrap::Factory Application::platformFactory()
{
    Bootstrap::Factory f;
    f.menuBar = [] { return std::make_unique<MenuBarController>(); };
    f.injector = [this]() -> std::unique_ptr<AbstractTextInjector> {
        if (InputAccess::waylandSession()) {
            auto injector = std::make_unique<WaylandTextInjector>();
            waylandInjector_ = injector.get();
            return injector;
        }
        auto injector = std::make_unique<TextInjector>();
        injector_ = injector.get();
        return injector;
    };
    f.overlay = [] { return std::make_unique<OverlayController>(); };
    f.audio = [] { return std::make_unique<AudioEngineController>(std::make_unique<MicrophoneSource>()); };
    f.transcriber = [] { return std::make_unique<TranscriberController>(); };
    f.hotkey = [this]() -> std::unique_ptr<AbstractHotkeyManager> {
        // In a Wayland session X clients see other clients' keys only while one of their own windows
        // has the focus, so the keys are read from the keyboards themselves.
        if (InputAccess::waylandSession()) {
            // One line for both sides: the key backend here, the typing backends chosen before.
            Diagnostics::log(QStringLiteral("hotkey: Wayland session — keys read from /dev/input (evdev)")
                             + (waylandInjector_ ? QStringLiteral("; ") + waylandInjector_->description() : QString()));
            auto hotkey = std::make_unique<EvdevHotkeyManager>();
            evdevHotkey_ = hotkey.get();
            return hotkey;
        }
        Diagnostics::log(QStringLiteral("hotkey: X11 session — keys through XInput2"));
        auto hotkey = std::make_unique<HotkeyManager>();
        // So the monitor can tell the injector's own keystrokes (a typed Space) from the user's.
        if (injector_)
            injector_->setHotkeyManager(hotkey.get());
        return hotkey;
    };
    f.keyMonitorPrompt = InputAccess::waylandSession() ? &PermissionPrompt::inputDevices : &PermissionPrompt::accessibility;
    f.requestMicrophone = requestMicrophone;
    f.requestSpeech = requestSpeech;
    f.showBlockingError = [](const QString& title, const QString& message) {
        QMessageBox box(QMessageBox::Warning, title, QString(), QMessageBox::NoButton);
        box.setInformativeText(message);
        box.setText(title);
        box.addButton(QStringLiteral("Quit"), QMessageBox::AcceptRole);
        box.exec();
        // Leave the event loop as soon as it runs again; the fatal error ends the application.
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(1); });
    };
    f.checkForUpdates = [this] { updates_.checkAndReport(); };
    f.showAbout = [this] { about_.show(); };
    f.applyDockIconPolicy = [](bool show) { TaskbarPresence::apply(show); };
    return f;
}
