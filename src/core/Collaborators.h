#pragma once

// The operations and callbacks through which the dictation controller drives its collaborators.
// Each platform class implements one of these; tests drive the controller with fakes. A callback
// left empty is skipped.

#include "core/ActivationKey.h"
#include "core/AudioBuffer.h"

#include <QPoint>
#include <QString>

#include <qcoro/qcorotask.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

// A failure with a readable description, thrown by the throwing operations below.
class CollaboratorError : public std::runtime_error {
public:
    explicit CollaboratorError(const QString& description)
        : std::runtime_error(description.toStdString()), description_(description) {}
    const QString& localizedDescription() const { return description_; }

private:
    QString description_;
};

// The readable description of anything a collaborator threw.
inline QString describeError(const std::exception& error)
{
    if (const auto* e = dynamic_cast<const CollaboratorError*>(&error))
        return e->localizedDescription();
    return QString::fromUtf8(error.what());
}

// System-wide key monitor. Callbacks arrive on the GUI thread, each in a later turn of the event loop.
class AbstractHotkeyManager {
public:
    virtual ~AbstractHotkeyManager() = default;
    virtual void setActivationKey(ActivationKey key) = 0;  // effective from the next key event
    virtual ActivationKey activationKey() const = 0;
    virtual bool start() = 0;  // false while keys cannot be observed; may be called again
    virtual void stop() = 0;

    std::function<void()> onOptionDown;
    std::function<void()> onOptionUp;
    std::function<void()> onToggleChord;
    std::function<void()> onAnyKey;
    std::function<void()> onEscape;
};

// Microphone capture delivering converted blocks and a level per block, both on the audio thread.
class AbstractAudioEngine {
public:
    virtual ~AbstractAudioEngine() = default;
    virtual void setTargetFormat(std::optional<AudioFormat> format) = 0;
    virtual void start() = 0;  // throws CollaboratorError
    virtual void stop() = 0;   // never fails; harmless when not running
    // As stop(), once the speech still coming in at this moment has arrived (a moment at most).
    virtual void stopAfterSpeech() { stop(); }

    std::function<void(AudioBuffer)> onBuffer;
    std::function<void(float)> onAmplitude;
};

// The writing end of an open transcription's input. Safe to call from the audio thread; never blocks.
class AudioInputStream {
public:
    virtual ~AudioInputStream() = default;
    virtual void yield(AudioBuffer buffer) = 0;
};

// On-device speech transcription, one session at a time.
class AbstractTranscriber {
public:
    virtual ~AbstractTranscriber() = default;
    virtual QCoro::Task<void> prepare(QString locale) = 0;  // throws CollaboratorError
    virtual std::optional<AudioFormat> analyzerFormat() const = 0;
    virtual QCoro::Task<void> start() = 0;  // throws CollaboratorError
    // The open session's input, or null when none is open (buffers are then dropped). Any thread.
    virtual std::shared_ptr<AudioInputStream> inputContinuation() const = 0;
    virtual QCoro::Task<QString> finish() = 0;  // throws CollaboratorError
    virtual QCoro::Task<void> cancel() = 0;     // never throws

    // Committed text so far and the current volatile text, after every result; off the GUI thread.
    std::function<void(QString committed, QString volatileText)> onPartial;
};

// The floating pill.
class AbstractOverlay {
public:
    virtual ~AbstractOverlay() = default;
    virtual void installPersistent() = 0;
    virtual void show() = 0;
    virtual void setMode(bool toggle) = 0;
    virtual void beginProcessing() = 0;
    virtual void resetToIdle() = 0;
    virtual void setAmplitude(double level) = 0;  // 0 to 1, the waveform's input

    std::function<void()> onAccept;
    std::function<void()> onCancel;
    // A right-click on the pill, at this global position.
    std::function<void(const QPoint&)> onContextMenu;
};

// The tray icon and its menu.
class AbstractMenuBar {
public:
    virtual ~AbstractMenuBar() = default;
    virtual void install() = 0;
    virtual void stopAnimating() = 0;
    virtual void setAmplitude(double level) = 0;
    // Whether the desktop shows the tray icon; without one the menu opens from the pill.
    virtual bool hasTray() const = 0;
    virtual void popUpMenu(const QPoint& at) = 0;

    std::function<void()> onOpenSettings;
    std::function<void()> onAbout;
    std::function<void()> onCompare;
    std::function<void()> onCheckForUpdates;
};

// The Settings window.
class AbstractSettingsWindow {
public:
    virtual ~AbstractSettingsWindow() = default;
    virtual void show() = 0;
    // True when the window exists and is the active (key) window.
    virtual bool isKeyWindow() const = 0;
};

// Types, erases and pastes text into the focused application; GUI thread only.
class AbstractTextInjector {
public:
    virtual ~AbstractTextInjector() = default;
    virtual bool insertText(const QString& text) = 0;
    virtual void deleteBackward(int count) = 0;
    virtual bool pasteViaClipboard(const QString& text) = 0;
    virtual void pressReturn() = 0;
};

class CompareModel;

// The comparison window: arming resets its model for a new passage and shows the window.
class AbstractCompareWindow {
public:
    virtual ~AbstractCompareWindow() = default;
    virtual CompareModel& model() = 0;
    virtual void arm() = 0;
};
