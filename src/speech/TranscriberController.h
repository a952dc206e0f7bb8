#pragma once

#include "core/Collaborators.h"
#include "speech/TranscribeError.h"

#include <QFuture>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

class AbstractModelInventory;
class AnalyzerInputStream;
class SpeechAnalyzer;
class SpeechEngine;
class SpeechResultStream;

// Runs the speech recognizer for one dictation at a time. prepare() checks the language, installs
// its model when needed, loads the engine and publishes analyzerFormat(); a session from start()
// to finish() or cancel() feeds the engine the audio yielded into inputContinuation() and turns
// its volatile and final results into the committed and volatile texts reported by onPartial.
//
// Operations are awaited on the GUI thread; blocking work runs on a background pool. The results
// loop and onPartial run on a thread of their own; inputContinuation() may be read on any thread.
class TranscriberController final : public QObject, public AbstractTranscriber {
    Q_OBJECT
public:
    // Models from the standard inventory: the Debian model, <data>/Tolvane/models, the catalogue.
    explicit TranscriberController(QObject* parent = nullptr);
    explicit TranscriberController(std::shared_ptr<AbstractModelInventory> models, QObject* parent = nullptr);
    ~TranscriberController() override;

    QCoro::Task<void> prepare(QString locale) override;
    std::optional<AudioFormat> analyzerFormat() const override;
    QCoro::Task<void> start() override;
    std::shared_ptr<AudioInputStream> inputContinuation() const override;
    QCoro::Task<QString> finish() override;
    QCoro::Task<void> cancel() override;

    // Every language with an installed or installable model, as BCP-47 identifiers, sorted.
    static QCoro::Task<QStringList> supportedLocaleIdentifiers();
    static QCoro::Task<QStringList> supportedLocaleIdentifiers(AbstractModelInventory& models);

    std::optional<QString> preparedLocale() const { return preparedLocale_; }
    // Which recognizer produced the last finished session's text ("pocketsphinx", "the speech
    // server at …"); empty before the first.
    QString answeredBy() const { return answeredBy_; }

private:
    void runResultsLoop(std::shared_ptr<SpeechResultStream> results);
    void setContinuation(std::shared_ptr<AudioInputStream> continuation);
    void closeInput();  // no more audio: ends the input stream and forgets its writing end
    QCoro::Task<void> awaitResultsLoop();

    std::shared_ptr<AbstractModelInventory> models_;
    std::shared_ptr<SpeechEngine> engine_;              // loaded for preparedLocale_
    std::shared_ptr<SpeechResultStream> transcriber_;   // the session's recognizer, seen through its results
    std::shared_ptr<SpeechAnalyzer> analyzer_;
    std::atomic<std::shared_ptr<AudioInputStream>> inputContinuation_;
    std::shared_ptr<QFuture<void>> resultsTask_;
    std::optional<AudioFormat> analyzerFormat_;
    std::optional<QString> preparedLocale_;
    QString answeredBy_;
    QString finalText_;
    QString partialText_;
    mutable std::mutex lock_;  // guards finalText_ and partialText_
};
