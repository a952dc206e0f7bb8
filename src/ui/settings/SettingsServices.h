#pragma once

#include "core/ActivationKey.h"
#include "storage/TranscriptStore.h"
#include "speech/ServerSpeechEngine.h"
#include "text/CleanupEngine.h"

#include <QList>
#include <QStringList>

#include <qcoro/qcorotask.h>

#include <functional>

// What the Settings panes ask of the rest of Tolvane, handed in by whoever builds the window.
// Every field may be left empty; the panes then fall back as noted.
struct SettingsServices {
    // The transcriber's language identifiers, asked without blocking each time the General pane is
    // shown. Empty: the language list holds only the current language.
    std::function<QCoro::Task<QStringList>()> supportedLocales;
    // Whether the cleanup model answers with the current endpoint and model settings. Asked when
    // the General pane is shown and after those fields change. Empty: the line says it is unknown.
    std::function<QCoro::Task<CleanupEngine::Availability>()> cleanupAvailability;
    // The same for the speech server, with its settings; asked while "Local server" is chosen.
    std::function<QCoro::Task<ServerSpeechEngine::Availability>()> speechAvailability;
    // The history, oldest first, and the operation that deletes it. Empty: TranscriptStore::shared().
    std::function<QList<TranscriptEntry>()> historyEntries;
    std::function<void()> clearHistory;
    // What the key monitor lacks from the system, said under the shortcut (with the command that
    // fixes it); asked each time the General pane is shown. Empty function or text: no line.
    std::function<QString()> keyboardNotice;
    // Whether the activation-key picker offers a key (Fn only where a keyboard reports it); asked
    // each time the General pane is shown. Empty: every key.
    std::function<bool(ActivationKey)> offersKey;
};
