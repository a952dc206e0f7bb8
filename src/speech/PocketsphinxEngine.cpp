#include "speech/PocketsphinxEngine.h"

#include "core/Collaborators.h"
#include "speech/DecoderSession.h"
#include "speech/DecodingAnalyzer.h"
#include "speech/PronouncingDictionary.h"
#include "speech/SpeechFormat.h"
#include "storage/Diagnostics.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QStandardPaths>

#include <pocketsphinx.h>
#include <sphinxbase/err.h>
#include <sphinxbase/ngram_model.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

QString firstMatch(const QDir& dir, const QStringList& patterns, const QString& preferredPrefix)
{
    QStringList names = dir.entryList(patterns, QDir::Files | QDir::Readable, QDir::Name);
    // Phonetic language models (en-us-phone.lm.bin) recognise phones, not words.
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const QString& n) { return n.contains(QLatin1String("-phone"), Qt::CaseInsensitive); }),
                names.end());
    if (names.isEmpty())
        return {};
    for (const QString& n : names) {
        if (!preferredPrefix.isEmpty() && n.startsWith(preferredPrefix, Qt::CaseInsensitive))
            return dir.filePath(n);
    }
    return dir.filePath(names.first());
}

bool isAcousticModel(const QDir& dir)
{
    for (const char* name : {"mdef", "means", "variances", "transition_matrices"}) {
        if (!QFileInfo(dir.filePath(QLatin1String(name))).isFile())
            return false;
    }
    return true;
}

// The words a language model can recognise, or none when it cannot be read.
QSet<QByteArray> languageModelWords(const QString& path)
{
    QSet<QByteArray> words;
    logmath_t* math = logmath_init(1.0001, 0, FALSE);
    ngram_model_t* lm = ngram_model_read(nullptr, path.toLocal8Bit().constData(), NGRAM_AUTO, math);
    if (lm) {
        const int32 count = ngram_model_get_counts(lm)[0];
        words.reserve(count);
        for (int32 i = 0; i < count; ++i) {
            if (const char* word = ngram_word(lm, i))
                words.insert(QByteArray(word));
        }
        ngram_model_free(lm);
    }
    logmath_free(math);
    return words;
}

}  // namespace

std::optional<PocketsphinxEngine::Model> PocketsphinxEngine::Model::inFolder(const QString& folder, const QString& locale)
{
    const QDir dir(folder);
    if (!dir.exists())
        return std::nullopt;
    Model model;
    if (isAcousticModel(dir)) {
        model.acousticModel = dir.absolutePath();
    } else {
        for (const QString& sub : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
            if (isAcousticModel(QDir(dir.filePath(sub)))) {
                model.acousticModel = QDir(dir.filePath(sub)).absolutePath();
                break;
            }
        }
    }
    const QString prefix = locale.toLower();
    model.languageModel = firstMatch(
        dir, {QStringLiteral("*.lm.bin"), QStringLiteral("*.lm"), QStringLiteral("*.lm.dmp"), QStringLiteral("*.lm.DMP")}, prefix);
    model.dictionary = firstMatch(dir, {QStringLiteral("*.dict"), QStringLiteral("*.dic")}, prefix);
    if (model.acousticModel.isEmpty() || model.languageModel.isEmpty() || model.dictionary.isEmpty())
        return std::nullopt;
    return model;
}

QStringList PocketsphinxEngine::decoderArguments(const Model& model, const Settings& settings)
{
    QStringList args{QStringLiteral("-hmm"),  model.acousticModel,
                     QStringLiteral("-lm"),   model.languageModel,
                     QStringLiteral("-dict"), model.dictionary,
                     QStringLiteral("-vad_postspeech"), QString::number(settings.vadPostspeech)};
    if (settings.pass == Settings::Pass::lattice)
        args << QStringLiteral("-fwdflat") << QStringLiteral("no") << QStringLiteral("-bestpath") << QStringLiteral("yes")
             << QStringLiteral("-lw") << QStringLiteral("7.5") << QStringLiteral("-bestpathlw") << QStringLiteral("11")
             << QStringLiteral("-beam") << QStringLiteral("1e-60") << QStringLiteral("-pbeam") << QStringLiteral("1e-60")
             << QStringLiteral("-maxwpf") << QStringLiteral("20");
    else
        args << QStringLiteral("-fwdflat") << QStringLiteral("yes") << QStringLiteral("-bestpath") << QStringLiteral("no");
    // An extra argument replaces one given above rather than repeating it.
    for (qsizetype i = 0; i + 1 < settings.extra.size(); i += 2) {
        const qsizetype at = args.indexOf(settings.extra[i]);
        if (at >= 0 && at % 2 == 0)
            args[at + 1] = settings.extra[i + 1];
        else
            args << settings.extra[i] << settings.extra[i + 1];
    }
    return args;
}

ps_decoder_s* PocketsphinxEngine::createDecoder(const Model& model, const Settings& settings)
{
    static std::once_flag quiet;
    std::call_once(quiet, [] { err_set_logfp(nullptr); });  // the decoder's chatter is not ours to print

    Model used = model;
    if (settings.trimDictionary) {
        const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
                              + QStringLiteral("/Tolvane/dictionaries");
        const auto trimmed = PronouncingDictionary::trimmedFor(model.dictionary, model.languageModel, cache, languageModelWords);
        if (!trimmed.problem.isEmpty())
            Diagnostics::log(QStringLiteral("transcriber: loading the whole dictionary (") + trimmed.problem + QLatin1Char(')'));
        used.dictionary = trimmed.path;
    }
    const QStringList args = decoderArguments(used, settings);
    std::vector<QByteArray> bytes{QByteArrayLiteral("tolvane")};  // the parser skips argv[0]
    for (const QString& a : args)
        bytes.push_back(a.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& b : bytes)
        argv.push_back(b.data());
    cmd_ln_t* config = cmd_ln_parse_r(nullptr, ps_args(), static_cast<int32>(argv.size()), argv.data(), FALSE);
    if (!config)
        return nullptr;
    ps_decoder_t* decoder = ps_init(config);
    cmd_ln_free_r(config);
    return decoder;
}

namespace {

QString loadFailure(const PocketsphinxEngine::Model& model)
{
    return QStringLiteral("Could not load the speech model in ") + QFileInfo(model.acousticModel).absolutePath();
}

}  // namespace

PocketsphinxEngine::PocketsphinxEngine(const Model& model, const Settings& settings)
    : model_(model), settings_(settings)
{
}

std::shared_ptr<PocketsphinxEngine> PocketsphinxEngine::load(const Model& model, const Settings& settings)
{
    // Loaded now, so a model that cannot be loaded is found when the language is prepared.
    ps_decoder_t* decoder = createDecoder(model, settings);
    if (!decoder)
        throw CollaboratorError(loadFailure(model));
    std::shared_ptr<PocketsphinxEngine> engine(new PocketsphinxEngine(model, settings));
    engine->decoder_ = decoder;
    engine->loaded_ = true;
    engine->lastUse_ = std::chrono::steady_clock::now();
    engine->self_ = engine;
    engine->keeper_ = std::thread([e = engine.get()] { e->keep(); });
    return engine;
}

PocketsphinxEngine::~PocketsphinxEngine()
{
    {
        std::lock_guard lock(keeperMutex_);
        stopping_ = true;
    }
    keeperWake_.notify_all();
    if (keeper_.joinable())
        keeper_.join();
    if (decoder_)
        ps_free(decoder_);
}

ps_decoder_s* PocketsphinxEngine::claim(std::unique_lock<std::mutex>& busy)
{
    {
        std::lock_guard lock(keeperMutex_);
        ++sessions_;
    }
    busy = std::unique_lock(decoderInUse_);
    if (!decoder_) {
        QElapsedTimer took;
        took.start();
        decoder_ = createDecoder(model_, settings_);
        if (!decoder_)
            throw CollaboratorError(loadFailure(model_));
        loaded_ = true;
        Diagnostics::log(QStringLiteral("transcriber: speech model loaded in %1 ms").arg(took.elapsed()));
    }
    return decoder_;
}

void PocketsphinxEngine::unclaim(std::unique_lock<std::mutex>& busy)
{
    if (busy.owns_lock())
        busy.unlock();
    {
        std::lock_guard lock(keeperMutex_);
        --sessions_;
        lastUse_ = std::chrono::steady_clock::now();
    }
    keeperWake_.notify_all();
}

void PocketsphinxEngine::keep()
{
    std::unique_lock lock(keeperMutex_);
    for (;;) {
        // Sleeps, without waking, until there is a decoder that no session uses.
        keeperWake_.wait(lock, [this] { return stopping_ || (loaded_ && sessions_ == 0); });
        if (stopping_)
            return;
        const auto due = lastUse_ + settings_.keepLoaded;
        if (keeperWake_.wait_until(lock, due, [this, due] { return stopping_ || sessions_ > 0 || lastUse_ + settings_.keepLoaded != due; }))
            continue;
        // No session holds the decoder and none can claim it while keeperMutex_ is held. It is
        // freed outside the locks, so a session starting meanwhile does not wait for that.
        ps_decoder_s* unused = nullptr;
        {
            std::lock_guard busy(decoderInUse_);
            std::swap(unused, decoder_);
            loaded_ = false;
        }
        lock.unlock();
        ps_free(unused);
#ifdef __GLIBC__
        malloc_trim(0);  // the decoder's many small blocks would otherwise stay with the process
#endif
        Diagnostics::log(QStringLiteral("transcriber: speech model released after %1 s unused")
                             .arg(std::chrono::duration<double>(settings_.keepLoaded).count()));
        lock.lock();
    }
}

// One session's decoding over the engine's decoder. Segments end at the decoder's voice-activity end.
class PocketsphinxAnalyzer final : public DecodingAnalyzer {
public:
    PocketsphinxAnalyzer(std::shared_ptr<PocketsphinxEngine> engine, std::shared_ptr<SpeechResultStream> results)
        : DecodingAnalyzer(std::move(results), PocketsphinxEngine::format()), engine_(std::move(engine))
    {
    }
    ~PocketsphinxAnalyzer() override { stopDecoding(); }

protected:
    void beginDecoding() override
    {
        claimed_ = true;
        session_.emplace(engine_->claim(busy_), engine_->settings_);
        session_->begin();
    }

    void decode(const AudioBuffer& buffer) override
    {
        if (!monoPcm16(buffer, pcm_))
            return;
        if (const std::optional<QString> ended = session_->feed(pcm_.data(), pcm_.size()))
            segmentEnded(*ended);
    }

    void caughtUp() override
    {
        // Partial hypotheses only when there is nothing else to decode, so a backlog drains first.
        if (!session_->inSegment())
            return;
        const QString text = session_->hypothesis();
        if (text != lastVolatile_) {
            lastVolatile_ = text;
            emitResult(text, false);
        }
    }

    void finalizeDecoding() override { segmentEnded(session_->end()); }

    QString answeredBy() const override { return QStringLiteral("pocketsphinx"); }

    void endDecoding() override
    {
        session_.reset();
        if (claimed_)
            engine_->unclaim(busy_);
        claimed_ = false;
    }

private:
    void segmentEnded(const QString& text)
    {
        if (!text.isEmpty())
            emitResult(text, true);
        else if (!lastVolatile_.isEmpty())
            emitResult(QString(), false);  // withdraw a hypothesis that came to nothing (a cough)
        lastVolatile_.clear();
    }

    std::shared_ptr<PocketsphinxEngine> engine_;
    std::unique_lock<std::mutex> busy_;
    std::optional<DecoderSession> session_;
    std::vector<int16> pcm_;
    QString lastVolatile_;
    bool claimed_ = false;
};

std::vector<std::int16_t> PocketsphinxEngine::leadIn(const Settings& settings)
{
    // A microphone's noise floor (about -75 dBFS), the same every time so a session decodes alike.
    std::vector<std::int16_t> samples(static_cast<size_t>(settings.leadIn.count() * 16));  // 16 kHz
    std::uint32_t state = 0x2545F491u;
    for (std::int16_t& s : samples) {
        state = state * 1664525u + 1013904223u;
        s = static_cast<std::int16_t>(static_cast<int>(state >> 28) - 8);
    }
    return samples;
}

std::unique_ptr<SpeechAnalyzer> PocketsphinxEngine::makeAnalyzer(std::shared_ptr<SpeechResultStream> results)
{
    return std::make_unique<PocketsphinxAnalyzer>(self_.lock(), std::move(results));
}
