#pragma once

// The dictation controller wired to fakes of every collaborator, with the real history store.

#include "dictation/AppDelegate.h"
#include "dictation/CompareModel.h"
#include "storage/TranscriptStore.h"
#include "support/Fakes.h"
#include "text/CleanupEngine.h"

#include <QCoreApplication>

#include <memory>

// Answers every mode with a recognisable rewrite, or with what a test sets.
class FakeCleanup final : public CleanupEngine {
public:
    QCoro::Task<QString> process(QString text, CleanupMode mode) override
    {
        calls << CleanupModes::rawValue(mode) + QLatin1Char(':') + text;
        if (answer)
            co_return *answer;
        co_return CleanupModes::rawValue(mode).toUpper() + QLatin1Char('(') + text + QLatin1Char(')');
    }
    QStringList calls;
    std::optional<QString> answer;
};

class FakeCompareWindow final : public AbstractCompareWindow {
public:
    CompareModel& model() override { return model_; }
    void arm() override
    {
        ++arms;
        model_.reset();
    }
    CompareModel model_;
    int arms = 0;
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
        if (event == QLatin1String("key down"))
            hotkey.onOptionDown();
        else if (event == QLatin1String("key up"))
            hotkey.onOptionUp();
        else if (event == QLatin1String("chord"))
            hotkey.onToggleChord();
        else if (event == QLatin1String("any key"))
            hotkey.onAnyKey();
        else if (event == QLatin1String("esc"))
            hotkey.onEscape();
        else if (event == QLatin1String("accept"))
            overlay.onAccept();
        else if (event == QLatin1String("discard"))
            overlay.onCancel();
        else
            qFatal("unknown event");
        settle();
    }
};
