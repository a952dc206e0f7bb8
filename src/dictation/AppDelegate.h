#pragma once

#include "core/Collaborators.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>

#include <qcoro/qcorotask.h>

#include <optional>

class CleanupEngine;
class TranscriptStore;

// The dictation controller: turns key events and pill clicks into start, finish and discard, and
// runs the finishing pipeline. Every field and handler lives on the GUI thread; each handler is a
// coroutine, and the mode checked at its start is the only guard against the others.
class AppDelegate final : public QObject {
    Q_OBJECT
public:
    enum class Mode : quint8 { idle, hold, toggle, finishing };

    static constexpr qint64 leadingSpaceWindowMs = 30000;  // a following insertion gets one leading blank
    static constexpr int typingLimit = 150;                // longer text is pasted instead of typed
    static constexpr int returnDelayMs = 120;              // between the insertion and the automatic Return
    static QString modeName(Mode mode);

    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

    // Collaborators, not owned; set by start-up (or a test) before wireCallbacks().
    AbstractHotkeyManager* hotkey = nullptr;
    AbstractAudioEngine* audio = nullptr;
    AbstractTranscriber* transcriber = nullptr;
    AbstractOverlay* overlay = nullptr;
    AbstractTextInjector* injector = nullptr;
    TranscriptStore* store = nullptr;
    AbstractMenuBar* menuBar = nullptr;
    AbstractSettingsWindow* settingsWindow = nullptr;
    CleanupEngine* cleanup = nullptr;
    AbstractCompareWindow* compareWindow = nullptr;

    bool compareArmed = false;
    QString screenText;
    Mode mode = Mode::idle;
    std::optional<QDateTime> lastPasteAt;
    bool ignoreNextOptionUp = false;

    // Installs the callbacks of the key monitor, pill, capture and transcriber. Each holds this
    // object weakly.
    void wireCallbacks();

    QCoro::Task<> handleOptionDown();
    QCoro::Task<> handleOptionUp();
    QCoro::Task<> handleToggleChord();
    QCoro::Task<> startDictation();
    QCoro::Task<> cancelDictation();
    QCoro::Task<> endAndPaste();
    QCoro::Task<> finishDictation(bool paste, bool fromToggle);

    // Live typing.
    void handlePartial(const QString& committed, const QString& volatileText);
    void liveTypeAppend(const QString& target);
    void reconcileLiveTyping(const QString& finalText);

    // Comparison of the cleanup modes.
    void armComparison();
    QCoro::Task<> runComparison(QString raw);

    // The events, as the collaborators' callbacks deliver them (public so tests can drive them).
    void onOptionDown();
    void onOptionUp();
    void onToggleChord();
    void onAnyKey();
    void onEscape();
    void onOverlayAccept();
    void onOverlayCancel();
    void onAmplitude(float level);

Q_SIGNALS:
    // Emitted after every change of mode, for the interface and for tests.
    void modeChanged(AppDelegate::Mode mode);

private:
    void setMode(Mode next);
    void closeDictation();
    void scheduleReturn(bool logged);
    // Runs a handler as a new task in a later turn of the event loop.
    template <typename Handler>
    void spawn(Handler handler);

    quint64 dictationId_ = 0;  // the dictation most recently started
    quint64 endedId_ = 0;      // the dictation most recently finished or discarded
};
