#pragma once

#include "speech/PauseDetector.h"
#include "speech/PocketsphinxEngine.h"

#include <QString>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

struct ps_decoder_s;

// One dictation's decoding on a pocketsphinx decoder, cut into segments where the decoder's
// voice-activity detection (or the splitter) ends them. Throws CollaboratorError when the decoder
// fails. The engine's analyzer and the benchmarks' bare decoder share it, so both measure the same.
class DecoderSession {
public:
    DecoderSession(ps_decoder_s* decoder, const PocketsphinxEngine::Settings& settings);
    ~DecoderSession();  // ends an utterance still open, without its text or any say in the normalisation

    // Starts the stream with the settings' lead-in.
    void begin();
    // Decodes `count` samples of 16 kHz mono audio; the text of a segment this ended (empty for a
    // segment of noise alone).
    std::optional<QString> feed(const std::int16_t* samples, std::size_t count);
    bool inSegment() const { return inSegment_; }
    // The open segment's hypothesis so far.
    QString hypothesis() const;
    // Ends the last segment; its text.
    QString end();

private:
    QString closeUtterance();
    void keepNormalisation();

    ps_decoder_s* ps_;
    PocketsphinxEngine::Settings settings_;
    SegmentSplitter splitter_;
    std::vector<float> normalisation_;
    bool uttOpen_ = false;
    bool inSegment_ = false;
};
