#include "app/Bootstrap.h"

#include "app/PermissionPrompt.h"
#include "dictation/AppDelegate.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"

#include <QElapsedTimer>
#include <QPointer>
#include <qcoro/qcorotimer.h>

Bootstrap::Bootstrap(AppDelegate& delegate, Factory factory, QObject* parent)
    : QObject(parent), delegate_(delegate), factory_(std::move(factory))
{
    accessibilityTimer_.setInterval(accessibilityPollMs);
    connect(&accessibilityTimer_, &QTimer::timeout, this, [this] {
        if (!hotkey_ || !hotkey_->start())
            return;
        accessibilityTimer_.stop();
        PermissionPrompt::dismiss();
        Diagnostics::log(QStringLiteral("bootstrap: accessibility granted — READY"));
    });
}

Bootstrap::~Bootstrap()
{
    // The delegate may outlive us in tests: leave it without dangling collaborators.
    if (hotkey_)
        hotkey_->stop();
    if (audio_)
        audio_->stop();
    delegate_.hotkey = nullptr;
    delegate_.audio = nullptr;
    delegate_.transcriber = nullptr;
    delegate_.overlay = nullptr;
    delegate_.injector = nullptr;
    delegate_.menuBar = nullptr;
}

void Bootstrap::applicationDidFinishLaunching()
{
    Diagnostics::log(QStringLiteral("applicationDidFinishLaunching"));
    if (factory_.applyDockIconPolicy)
        factory_.applyDockIconPolicy(Preferences::shared().showDockIcon());

    menuBar_ = factory_.menuBar();
    delegate_.menuBar = menuBar_.get();
    const QPointer<AppDelegate> weak(&delegate_);
    menuBar_->onOpenSettings = [weak] {
        if (weak && weak->settingsWindow)
            weak->settingsWindow->show();
    };
    menuBar_->onAbout = factory_.showAbout;
    menuBar_->onCompare = [weak] {
        if (weak)
            weak->armComparison();
    };
    menuBar_->install();
    menuBar_->onCheckForUpdates = factory_.checkForUpdates;
    // Without a tray the pill is the way to the menu, so it is there from the start.
    if (!menuBar_->hasTray())
        installOverlay();

    [](Bootstrap* self) -> QCoro::Task<> {
        const QPointer<Bootstrap> guard(self);
        co_await self->bootstrap();
        if (guard) {
            guard->finished_ = true;
            Q_EMIT guard->bootstrapFinished();
        }
    }(this);
}

void Bootstrap::installOverlay()
{
    if (overlay_)
        return;
    overlay_ = factory_.overlay();
    delegate_.overlay = overlay_.get();
    overlay_->onContextMenu = [menuBar = menuBar_.get()](const QPoint& at) { menuBar->popUpMenu(at); };
    overlay_->installPersistent();
}

QCoro::Task<> Bootstrap::bootstrap()
{
    Diagnostics::log(QStringLiteral("bootstrap: starting"));
    Diagnostics::log(QStringLiteral("bootstrap: requesting microphone…"));
    bool microphone = co_await factory_.requestMicrophone();
    Diagnostics::log(QStringLiteral("bootstrap: microphone = ") + Diagnostics::boolText(microphone));
    if (!microphone) {
        // A sound server that starts after Tolvane at login, or a microphone plugged in later: keep
        // asking, and carry on by itself once an input is there.
        PermissionPrompt::show(PermissionPrompt::microphone);
        Diagnostics::log(QStringLiteral("bootstrap: waiting for a microphone…"));
        const QPointer<Bootstrap> guard(this);
        QElapsedTimer waited;
        waited.start();
        while (!microphone) {
            QTimer pause;
            pause.setSingleShot(true);
            pause.start(microphonePollMs);
            co_await pause;
            if (!guard)
                co_return;
            microphone = co_await factory_.requestMicrophone();
        }
        PermissionPrompt::dismiss();
        Diagnostics::log(QStringLiteral("bootstrap: a microphone appeared after %1 s").arg(waited.elapsed() / 1000.0, 0, 'f', 1));
    }

    // The transcriber is made here rather than in completeSetup() because on this platform "speech
    // permission" means it has a model for some language.
    transcriber_ = factory_.transcriber();
    Diagnostics::log(QStringLiteral("bootstrap: requesting speech…"));
    const bool speech = co_await factory_.requestSpeech(*transcriber_);
    Diagnostics::log(QStringLiteral("bootstrap: speech = ") + Diagnostics::boolText(speech));
    if (!speech) {
        PermissionPrompt::show(PermissionPrompt::speech);
        co_return;
    }
    co_await completeSetup();
}

QCoro::Task<> Bootstrap::completeSetup()
{
    delegate_.store = &TranscriptStore::shared();
    injector_ = factory_.injector();
    installOverlay();
    audio_ = factory_.audio();
    if (!transcriber_)
        transcriber_ = factory_.transcriber();
    delegate_.injector = injector_.get();
    delegate_.audio = audio_.get();
    delegate_.transcriber = transcriber_.get();

    const QString identifier = Preferences::shared().localeIdentifier();
    Diagnostics::log(QStringLiteral("bootstrap: preparing transcriber (") + identifier + QStringLiteral(")…"));
    QString failure;
    try {
        co_await transcriber_->prepare(identifier);
    } catch (const std::exception& e) {
        failure = describeError(e);
    }
    if (!failure.isEmpty()) {
        Diagnostics::log(QStringLiteral("bootstrap: transcriber prepare FAILED: ") + failure);
        factory_.showBlockingError(
            QStringLiteral("Speech model unavailable"),
            QStringLiteral("Could not load the on-device speech model for ") + identifier + QStringLiteral(":\n\n") + failure
                + QStringLiteral("\n\nMake sure Debian 12 is fully updated and try again. You can also "
                                 "pick a different language in Settings."));
        co_return;
    }
    audio_->setTargetFormat(transcriber_->analyzerFormat());
    Diagnostics::log(QStringLiteral("bootstrap: transcriber ready."));

    connect(&Preferences::shared(), &Preferences::localeChanged, this, &Bootstrap::reprepareLocale);

    hotkey_ = factory_.hotkey();
    delegate_.hotkey = hotkey_.get();
    hotkey_->setActivationKey(Preferences::shared().activationKey());
    connect(&Preferences::shared(), &Preferences::activationKeyChanged, this, [this] {
        if (hotkey_)
            hotkey_->setActivationKey(Preferences::shared().activationKey());
    });
    // Capture, transcriber, pill buttons and the five key callbacks.
    delegate_.wireCallbacks();
    overlay_->installPersistent();

    if (hotkey_->start()) {
        PermissionPrompt::dismiss();
        Diagnostics::log(QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle."));
        co_return;
    }
    Diagnostics::log(QStringLiteral("bootstrap: accessibility missing — prompting + polling"));
    PermissionPrompt::show(*factory_.keyMonitorPrompt);
    startAccessibilityPolling();
}

void Bootstrap::startAccessibilityPolling()
{
    accessibilityTimer_.start();
}

void Bootstrap::reprepareLocale()
{
    if (delegate_.mode != AppDelegate::Mode::idle || !transcriber_)
        return;
    const QString identifier = Preferences::shared().localeIdentifier();
    Diagnostics::log(QStringLiteral("locale: re-preparing transcriber for ") + identifier + QStringLiteral("…"));
    [](QPointer<Bootstrap> self, QString identifier) -> QCoro::Task<> {
        QString failure;
        try {
            co_await self->transcriber_->prepare(identifier);
        } catch (const std::exception& e) {
            failure = describeError(e);
        }
        if (!self)
            co_return;
        if (!failure.isEmpty()) {
            Diagnostics::log(QStringLiteral("locale: re-prepare FAILED for ") + identifier + QStringLiteral(": ") + failure);
            co_return;
        }
        self->audio_->setTargetFormat(self->transcriber_->analyzerFormat());
        Diagnostics::log(QStringLiteral("locale: transcriber re-prepared for ") + identifier);
    }(this, identifier);
}

void Bootstrap::applicationShouldHandleReopen()
{
    if (delegate_.settingsWindow)
        delegate_.settingsWindow->show();
}
