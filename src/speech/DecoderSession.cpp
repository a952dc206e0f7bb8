#include "speech/DecoderSession.h"

#include "core/Collaborators.h"

#include <pocketsphinx.h>
#include <sphinxbase/cmn.h>
#include <sphinxbase/feat.h>

#include <type_traits>

static_assert(std::is_same_v<mfcc_t, float>, "the normalisation is kept as float");

namespace {
[[noreturn]] void failed() { throw CollaboratorError(QStringLiteral("The speech decoder failed on its input.")); }
}  // namespace

DecoderSession::DecoderSession(ps_decoder_s* decoder, const PocketsphinxEngine::Settings& settings)
    : ps_(decoder), settings_(settings), splitter_(settings.splitAfter, settings.splitPause)
{
}

DecoderSession::~DecoderSession()
{
    if (!uttOpen_)
        return;
    ps_end_utt(ps_);
    // A dictation thrown away mid-word (or never fed) ends the decoder's utterance there; normalised
    // against that fragment, the next dictation's words were garbled ("the meeting moved…" heard as
    // "then he came…").
    if (!normalisation_.empty())
        cmn_live_set(ps_get_feat(ps_)->cmn_struct, normalisation_.data());
}

void DecoderSession::begin()
{
    if (ps_start_stream(ps_) < 0 || ps_start_utt(ps_) < 0)
        throw CollaboratorError(QStringLiteral("The speech decoder could not start."));
    uttOpen_ = true;
    const std::vector<int16> quiet = PocketsphinxEngine::leadIn(settings_);
    if (!quiet.empty() && ps_process_raw(ps_, quiet.data(), quiet.size(), FALSE, FALSE) < 0)
        failed();
    splitter_.begin(quiet);
    keepNormalisation();
}

std::optional<QString> DecoderSession::feed(const std::int16_t* samples, std::size_t count)
{
    if (ps_process_raw(ps_, samples, count, FALSE, FALSE) < 0)
        failed();
    const bool split = splitter_.shouldEnd(samples, count);
    if (ps_get_in_speech(ps_) && !split) {
        inSegment_ = true;
        return std::nullopt;
    }
    if (!inSegment_)
        return std::nullopt;
    QString text = closeUtterance();
    if (ps_start_utt(ps_) < 0)
        throw CollaboratorError(QStringLiteral("The speech decoder could not start."));
    uttOpen_ = true;
    return text;
}

QString DecoderSession::hypothesis() const
{
    const char* hyp = ps_get_hyp(ps_, nullptr);
    return hyp ? QString::fromUtf8(hyp).trimmed() : QString();
}

QString DecoderSession::end() { return uttOpen_ ? closeUtterance() : QString(); }

QString DecoderSession::closeUtterance()
{
    ps_end_utt(ps_);
    uttOpen_ = false;
    inSegment_ = false;
    splitter_.segmentEnded();
    const QString text = hypothesis();
    if (!text.isEmpty())
        keepNormalisation();
    else
        // The voice-activity detector takes the hiss of a quiet room, as the key goes down or while
        // the user waits to speak, for speech now and then. Normalised against such a segment, the
        // next real words are garbled ("pick up milk…" heard as "the old way").
        cmn_live_set(ps_get_feat(ps_)->cmn_struct, normalisation_.data());
    return text;
}

// The cepstral mean as it stood after the last segment that held words.
void DecoderSession::keepNormalisation()
{
    cmn_t* cmn = ps_get_feat(ps_)->cmn_struct;
    normalisation_.resize(static_cast<std::size_t>(cmn->veclen));
    cmn_live_get(cmn, normalisation_.data());
}
