#pragma once

#include "core/AudioBuffer.h"

#include <QString>

#include <memory>
#include <optional>

class AnalyzerInputStream;
class SpeechResultStream;

// The analysis of one session: consumes the session's input stream on a thread of its own and
// delivers volatile and final results into the session's result stream. How it decodes is its
// own business: a streaming decoder works block by block, a decoder that re-reads a sliding window
// of audio decodes whenever it has caught up with the input (see DecodingAnalyzer).
class SpeechAnalyzer {
public:
    virtual ~SpeechAnalyzer() = default;  // stops at once if still running

    // Warms up for the given input format; throws CollaboratorError when the format is unusable.
    virtual void prepareToAnalyze(const AudioFormat& format) = 0;
    // Begins consuming the input; returns once started. Throws CollaboratorError.
    virtual void start(std::shared_ptr<AnalyzerInputStream> input) = 0;
    // Blocks until everything up to the end of the (finished) input has been decoded, the last final
    // results delivered and the result stream ended. Throws CollaboratorError when decoding failed.
    virtual void finalizeAndFinishThroughEndOfInput() = 0;
    // Stops at once, dropping undecoded input, and ends the result stream. Never throws.
    virtual void cancelAndFinishNow() = 0;
    // Which recognizer produced the session's text, in words ("pocketsphinx").
    virtual QString answeredBy() const = 0;
};

// A recognizer loaded for one language: made when a language is prepared (loading a model is the
// slow part) and asked for a fresh analyzer per session.
class SpeechEngine {
public:
    virtual ~SpeechEngine() = default;

    // The input format the engine decodes without conversion, when it has a preference.
    virtual std::optional<AudioFormat> bestAvailableAudioFormat() const = 0;
    // The analyzer of a new session, writing into `results`.
    virtual std::unique_ptr<SpeechAnalyzer> makeAnalyzer(std::shared_ptr<SpeechResultStream> results) = 0;
};
