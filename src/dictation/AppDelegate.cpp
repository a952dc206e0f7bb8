#include "dictation/AppDelegate.h"

#include "core/Handoff.h"
#include "dictation/CompareModel.h"
#include "dictation/LiveTyping.h"
#include "storage/TranscriptStore.h"
#include "text/CleanupEngine.h"
#include "text/SnippetStore.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QTimer>

#include <algorithm>
#include <exception>


QString AppDelegate::modeName(Mode mode)
{
    switch (mode) {
    case Mode::idle: return QStringLiteral("idle");
    case Mode::hold: return QStringLiteral("hold");
    case Mode::toggle: return QStringLiteral("toggle");
    case Mode::finishing: return QStringLiteral("finishing");
    }
    return {};
}

AppDelegate::AppDelegate(QObject* parent) : QObject(parent) {}

AppDelegate::~AppDelegate() = default;

void AppDelegate::setMode(Mode next)
{
    if (mode == next)
        return;
    mode = next;
    Q_EMIT modeChanged(next);
}

template <typename Handler>
void AppDelegate::spawn(Handler handler)
{
    // A later turn of the event loop, like a new task; skipped once this object is gone.
    QTimer::singleShot(0, this, [this, handler] { (this->*handler)(); });
}

void AppDelegate::wireCallbacks()
{
    const QPointer<AppDelegate> self(this);
    auto weakly = [self](void (AppDelegate::*event)()) {
        return [self, event] {
            if (self)
                (self.data()->*event)();
        };
    };
    if (hotkey) {
        hotkey->onOptionDown = weakly(&AppDelegate::onOptionDown);
        hotkey->onOptionUp = weakly(&AppDelegate::onOptionUp);
        hotkey->onToggleChord = weakly(&AppDelegate::onToggleChord);
        hotkey->onAnyKey = weakly(&AppDelegate::onAnyKey);
        hotkey->onEscape = weakly(&AppDelegate::onEscape);
    }
    if (overlay) {
        overlay->onAccept = weakly(&AppDelegate::onOverlayAccept);
        overlay->onCancel = weakly(&AppDelegate::onOverlayCancel);
    }
    if (audio) {
        // The buffer route stays on the audio thread and touches only the transcriber's input.
        AbstractTranscriber* const t = transcriber;
        audio->onBuffer = [t](AudioBuffer buffer) {
            if (!t)
                return;
            if (const auto input = t->inputContinuation())
                input->yield(std::move(buffer));
        };
        audio->onAmplitude = [self](float level) {
            Handoff::post(self.data(), [self, level] {
                if (self)
                    self->onAmplitude(level);
            });
        };
    }
    if (transcriber) {
        transcriber->onPartial = [self](QString committed, QString volatileText) {
            Handoff::post(self.data(), [self, committed, volatileText] {
                if (self)
                    self->handlePartial(committed, volatileText);
            });
        };
    }
}

// ---- Events -------------------------------------------------------------------------------------

void AppDelegate::onOptionDown()
{
    Diagnostics::log(QStringLiteral("hotkey: OPTION DOWN"));
    spawn(&AppDelegate::handleOptionDown);
}

void AppDelegate::onOptionUp()
{
    Diagnostics::log(QStringLiteral("hotkey: OPTION UP"));
    spawn(&AppDelegate::handleOptionUp);
}

void AppDelegate::onToggleChord()
{
    Diagnostics::log(QStringLiteral("hotkey: ⌥+SPACE chord"));
    spawn(&AppDelegate::handleToggleChord);
}

void AppDelegate::onAnyKey()
{
    if (mode != Mode::toggle || Preferences::shared().liveTyping())
        return;
    Diagnostics::log(QStringLiteral("hotkey: key during toggle → end + paste"));
    spawn(&AppDelegate::endAndPaste);
}

void AppDelegate::onEscape()
{
    if (mode == Mode::idle)
        return;
    Diagnostics::log(QStringLiteral("hotkey: ESC (discard)"));
    spawn(&AppDelegate::cancelDictation);
}

void AppDelegate::onOverlayAccept()
{
    Diagnostics::log(QStringLiteral("overlay: INSERT (✓) button clicked"));
    spawn(&AppDelegate::endAndPaste);
}

void AppDelegate::onOverlayCancel()
{
    Diagnostics::log(QStringLiteral("overlay: DISCARD button clicked"));
    spawn(&AppDelegate::cancelDictation);
}

void AppDelegate::onAmplitude(float level)
{
    const double clamped = std::clamp(static_cast<double>(level), 0.0, 1.0);
    if (overlay)
        overlay->setAmplitude(clamped);
    if (menuBar)
        menuBar->setAmplitude(clamped);
}

// ---- Handlers -----------------------------------------------------------------------------------

QCoro::Task<> AppDelegate::handleOptionDown()
{
    if (settingsWindow && settingsWindow->isKeyWindow())
        co_return;
    if (mode != Mode::idle)
        co_return;
    setMode(Mode::hold);
    overlay->setMode(false);
    co_await startDictation();
}

QCoro::Task<> AppDelegate::handleOptionUp()
{
    switch (mode) {
    case Mode::idle:
    case Mode::finishing:
        co_return;
    case Mode::hold:
        co_await finishDictation(true, false);
        co_return;
    case Mode::toggle:
        if (ignoreNextOptionUp) {
            ignoreNextOptionUp = false;
            co_return;
        }
        Diagnostics::log(QStringLiteral("state: TOGGLE → END (⌥ tap)"));
        co_await endAndPaste();
        co_return;
    }
}

QCoro::Task<> AppDelegate::handleToggleChord()
{
    if (settingsWindow && settingsWindow->isKeyWindow())
        co_return;
    switch (mode) {
    case Mode::idle:
        setMode(Mode::toggle);
        overlay->setMode(true);
        co_await startDictation();
        co_return;
    case Mode::hold:
        Diagnostics::log(QStringLiteral("state: HOLD → TOGGLE (⌥+Space while holding)"));
        setMode(Mode::toggle);
        ignoreNextOptionUp = true;
        overlay->setMode(true);
        co_return;
    case Mode::toggle:
        Diagnostics::log(QStringLiteral("state: TOGGLE → END (chord)"));
        co_await finishDictation(true, true);
        co_return;
    case Mode::finishing:
        co_return;
    }
}

QCoro::Task<> AppDelegate::startDictation()
{
    const quint64 id = ++dictationId_;
    Diagnostics::log(QStringLiteral("dictation: starting (mode=") + modeName(mode) + QLatin1Char(')'));
    screenText.clear();
    overlay->show();

    QString failure;
    bool transcriberStarted = false;
    try {
        co_await transcriber->start();
        transcriberStarted = true;
    } catch (const std::exception& e) {
        failure = describeError(e);
    }

    if (transcriberStarted && endedId_ >= id) {
        // The dictation was finished or discarded while the transcriber was starting: never turn
        // the microphone on for it, and close the session it opened unless a newer one owns it.
        Diagnostics::log(QStringLiteral("dictation: start abandoned (ended while starting)"));
        if (dictationId_ == id)
            co_await transcriber->cancel();
        co_return;
    }

    if (failure.isEmpty()) {
        try {
            audio->start();
            Diagnostics::log(QStringLiteral("dictation: audio + transcriber running"));
            co_return;
        } catch (const std::exception& e) {
            failure = describeError(e);
        }
    }

    Diagnostics::log(QStringLiteral("dictation: start FAILED: ") + failure);
    endedId_ = id;
    audio->stop();
    overlay->resetToIdle();
    menuBar->stopAnimating();
    setMode(Mode::idle);
    overlay->setMode(false);
    ignoreNextOptionUp = false;
    // A transcription opened before the microphone failed would otherwise stay open.
    if (transcriberStarted)
        co_await transcriber->cancel();
}

QCoro::Task<> AppDelegate::cancelDictation()
{
    if (mode != Mode::hold && mode != Mode::toggle)
        co_return;
    Diagnostics::log(QStringLiteral("dictation: DISCARD"));
    endedId_ = dictationId_;
    setMode(Mode::idle);
    ignoreNextOptionUp = false;
    overlay->setMode(false);
    audio->stop();
    overlay->resetToIdle();
    menuBar->stopAnimating();
    co_await transcriber->cancel();
}

QCoro::Task<> AppDelegate::endAndPaste()
{
    if (mode != Mode::hold && mode != Mode::toggle)
        co_return;
    Diagnostics::log(QStringLiteral("dictation: END + PASTE (from ") + modeName(mode) + QLatin1Char(')'));
    co_await finishDictation(true, true);
}

void AppDelegate::closeDictation()
{
    overlay->resetToIdle();
    menuBar->stopAnimating();
    setMode(Mode::idle);
    // A flag left by a hold promoted to hands-free must not swallow a later dictation's key-up.
    ignoreNextOptionUp = false;
}

QCoro::Task<> AppDelegate::finishDictation(bool paste, bool fromToggle)
{
    // Every way out of here goes through closeDictation().
    Diagnostics::log(QStringLiteral("dictation: finishing (paste=") + Diagnostics::boolText(paste) + QStringLiteral(", fromToggle=")
                     + Diagnostics::boolText(fromToggle) + QLatin1Char(')'));
    setMode(Mode::finishing);
    endedId_ = dictationId_;
    audio->stopAfterSpeech();
    overlay->beginProcessing();

    QString text;
    try {
        text = co_await transcriber->finish();
    } catch (const std::exception& e) {
        Diagnostics::log(QStringLiteral("dictation: transcription error: ") + describeError(e));
        closeDictation();
        co_return;
    }
    const QString transcript = text.trimmed();
    Diagnostics::log(QStringLiteral("dictation: final text length=") + QString::number(LiveTyping::characterCount(transcript)));
    if (transcript.isEmpty()) {
        closeDictation();
        co_return;
    }

    if (compareArmed) {
        compareArmed = false;
        store->append(transcript);
        co_await runComparison(transcript);
        closeDictation();
        co_return;
    }

    if (Preferences::shared().liveTyping()) {
        reconcileLiveTyping(SnippetStore::expand(transcript).value_or(transcript));
        store->append(transcript);
        Diagnostics::log(QStringLiteral("dictation: live-typed ") + QString::number(LiveTyping::characterCount(transcript))
                         + QStringLiteral(" chars"));
        if (fromToggle && Preferences::shared().autoReturn())
            scheduleReturn(false);
        closeDictation();
        co_return;
    }

    if (!paste) {
        closeDictation();
        co_return;
    }

    store->append(transcript);
    QString insertion;
    if (const auto replacement = SnippetStore::expand(transcript)) {
        Diagnostics::log(QStringLiteral("snippet: expanded command"));
        insertion = *replacement;
    } else {
        const CleanupMode cleanupMode = Preferences::shared().cleanupMode();
        // Not a conditional expression: GCC 12 evaluates a co_await in either branch of one.
        if (cleanupMode == CleanupMode::raw)
            insertion = transcript;
        else
            insertion = co_await cleanup->process(transcript, cleanupMode);
    }

    const bool leadingSpace = lastPasteAt && lastPasteAt->msecsTo(QDateTime::currentDateTimeUtc()) < leadingSpaceWindowMs;
    if (leadingSpace)
        insertion.prepend(QLatin1Char(' '));

    bool inserted = false;
    if (!insertion.isEmpty()) {
        inserted = LiveTyping::characterCount(insertion) <= typingLimit ? injector->insertText(insertion)
                                                                          : injector->pasteViaClipboard(insertion);
    }
    Diagnostics::log(QStringLiteral("dictation: pasted=") + Diagnostics::boolText(inserted) + QStringLiteral(" (leadingSpace=")
                     + Diagnostics::boolText(leadingSpace) + QLatin1Char(')'));
    if (inserted) {
        lastPasteAt = QDateTime::currentDateTimeUtc();
        if (fromToggle && Preferences::shared().autoReturn())
            scheduleReturn(true);
    }
    closeDictation();
}

void AppDelegate::scheduleReturn(bool logged)
{
    // Outlives the pipeline; goes to whatever window has the focus when it fires.
    QTimer::singleShot(returnDelayMs, this, [this, logged] {
        if (!injector)
            return;
        if (logged)
            Diagnostics::log(QStringLiteral("dictation: auto-Return"));
        injector->pressReturn();
    });
}

// ---- Comparison ---------------------------------------------------------------------------------

void AppDelegate::armComparison()
{
    compareArmed = true;
    if (compareWindow)
        compareWindow->arm();
}

QCoro::Task<> AppDelegate::runComparison(QString raw)
{
    if (!compareWindow)
        co_return;
    CompareModel& model = compareWindow->model();
    model.setArmed(false);
    model.setRaw(raw);
    // One after another, each on the transcript as recognised. Each result is named before it is
    // used: GCC 12 mishandles temporaries around a co_await inside a call's arguments.
    model.setStatus(QStringLiteral("Cleaning up on-device… (Tidy)"));
    const QString tidy = co_await cleanup->process(raw, CleanupMode::tidy);
    model.setTidy(tidy);
    model.setStatus(QStringLiteral("Cleaning up on-device… (Bullets)"));
    const QString bullets = co_await cleanup->process(raw, CleanupMode::bullets);
    model.setBullets(bullets);
    model.setStatus(QStringLiteral("Cleaning up on-device… (Summary)"));
    const QString summary = co_await cleanup->process(raw, CleanupMode::summary);
    model.setSummary(summary);
    model.setStatus(QStringLiteral("Done — compare the four results below. Copy any of them."));
}

// ---- Live typing --------------------------------------------------------------------------------

void AppDelegate::handlePartial(const QString& committed, const QString& volatileText)
{
    if (!Preferences::shared().liveTyping() || mode == Mode::idle)
        return;
    QString target = committed;
    if (!committed.isEmpty() && !volatileText.isEmpty())
        target += QLatin1Char(' ');
    target += volatileText;
    liveTypeAppend(target);
}

void AppDelegate::liveTypeAppend(const QString& target)
{
    const QString delta = LiveTyping::appendDelta(screenText, target);
    if (delta.isEmpty())
        return;
    injector->insertText(delta);
    screenText += delta;
}

void AppDelegate::reconcileLiveTyping(const QString& finalText)
{
    const LiveTyping::Reconciliation r = LiveTyping::reconcile(screenText, finalText);
    injector->deleteBackward(r.deleteCount);
    if (!r.insert.isEmpty())
        injector->insertText(r.insert);
    screenText.clear();
}
