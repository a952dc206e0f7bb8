#pragma once

// The dictation controller wired to fakes of every collaborator, with the real history store.

#include "dictation/AppDelegate.h"
#include "dictation/CompareModel.h"
#include "storage/TranscriptStore.h"
#include "support/Fakes.h"
#include "text/CleanupEngine.h"

#include <QCoreApplication>
#include <QHash>

#include <memory>

// Answers every mode with a recognisable rewrite, or with what a test sets.
class FakeCleanup final : public CleanupEngine {
public:
    QCoro::Task<QString> process(QString text, CleanupMode mode) override
    {
        if (answer)
            co_return *answer;
        co_return CleanupModes::rawValue(mode).toUpper() + QLatin1Char('(') + text + QLatin1Char(')');
    }
    std::optional<QString> answer;
};

class FakeCompareWindow final : public AbstractCompareWindow {
public:
    CompareModel& model() override { return model_; }
    void arm() override { model_.reset(); }
    CompareModel model_;
};

struct DelegateRig {
    Journal journal;
    FakeHotkey hotkey;
    FakeAudio audio{journal};
    FakeTranscriber transcriber{journal};
    FakeOverlay overlay{journal};
    FakeMenuBar menuBar{journal};
    FakeSettingsWindow settings;
    FakeInjector injector{journal};
    FakeCleanup cleanup;
    FakeCompareWindow compare;
    std::unique_ptr<AppDelegate> delegate = std::make_unique<AppDelegate>();

    DelegateRig()
    {
        AppDelegate& d = *delegate;
        d.hotkey = &hotkey;
        d.audio = &audio;
        d.transcriber = &transcriber;
        d.overlay = &overlay;
        d.menuBar = &menuBar;
        d.settingsWindow = &settings;
        d.injector = &injector;
        d.store = &TranscriptStore::shared();
        d.cleanup = &cleanup;
        d.compareWindow = &compare;
        d.wireCallbacks();
    }

    AppDelegate::Mode mode() const { return delegate->mode; }

    // Lets every queued handler run as far as it can.
    static void settle()
    {
        for (int i = 0; i < 20; ++i)
            QCoreApplication::processEvents();
    }

    // "key down", "key up", "chord", "any key", "esc", "accept" or "discard", as the collaborators
    // deliver them; then settle.
    void fire(const QString& event)
    {
        const QHash<QString, std::function<void()>*> callbacks{
            {QStringLiteral("key down"), &hotkey.onOptionDown}, {QStringLiteral("key up"), &hotkey.onOptionUp},
            {QStringLiteral("chord"), &hotkey.onToggleChord},   {QStringLiteral("any key"), &hotkey.onAnyKey},
            {QStringLiteral("esc"), &hotkey.onEscape},          {QStringLiteral("accept"), &overlay.onAccept},
            {QStringLiteral("discard"), &overlay.onCancel}};
        if (!callbacks.contains(event))
            qFatal("unknown event");
        (*callbacks.value(event))();
        settle();
    }
};
