#pragma once

// What the speech benchmarks share: the spoken sentences (synthesised once with festival's HTS
// voice and kept in a cache folder), word error counting and small statistics.

#include "speech/DecoderSession.h"
#include "speech/PocketsphinxEngine.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <vector>

struct ps_decoder_s;

namespace BenchSpeech {

struct Recording {
    QString text;
    QString wavPath;             // 48 kHz mono, as a microphone delivers
    std::vector<float> mono16k;  // the same speech at 16 kHz, for feeding an engine directly
    double seconds = 0;
};

// The benchmark sentences (3-4 s each, or about 10 s), synthesised into `cacheDir` on first use,
// with `leadSeconds` of silence before and `tailSeconds` after the words (the pause before the key
// comes up).
// `heldOut`: sentences no setting was chosen on, to check that a choice did not merely fit the others.
enum class Length { sentence, long_, heldOut };
std::vector<Recording> recordings(const QString& cacheDir, double leadSeconds = 0.3, double tailSeconds = 0.3,
                                  Length length = Length::sentence);

// The ~10 s sentences, as said.
const QStringList& longSentences();
const QStringList& heldOutSentences();

// Re-runs the benchmark under tests/support/run-test.sh (with `xvfb`, also on an X server of its
// own) unless it already runs there, so the user's settings, history and desktop are never touched.
// Returns only when it already runs there, or with a message when it cannot.
void runInSandbox(int argc, char** argv, bool xvfb);

// One line to standard output at once, so a long run shows its progress as it goes.
void print(const QString& line);

QStringList words(const QString& text);
// Word-level edit distance between reference and hypothesis.
int wordErrors(const QStringList& reference, const QStringList& hypothesis);

double median(std::vector<double> values);
double percentile(std::vector<double> values, double p);  // nearest rank, p in 0..100

// Process CPU time in seconds, and resident / peak resident memory in MB.
double cpuSeconds();
double residentMB();
double peakResidentMB();

// The pocketsphinx decoder driven bare, block by block, segmenting as the engine does: at its
// voice-activity end, or at a pause once a segment is long, after the same lead-in. One utterance
// stream per begin() … end().
class BareDecoder {
public:
    explicit BareDecoder(const PocketsphinxEngine::Settings& settings);  // the Debian en-US model
    ~BareDecoder();
    void begin();
    void feed(const std::int16_t* samples, size_t count, bool withPartial = false);
    QString end();  // ends the last utterance; the whole text heard

private:
    PocketsphinxEngine::Settings settings_;
    ps_decoder_s* ps_ = nullptr;
    std::optional<DecoderSession> session_;
    QStringList heard_;
};

std::vector<std::int16_t> toPcm(const std::vector<float>& samples);

}  // namespace BenchSpeech
