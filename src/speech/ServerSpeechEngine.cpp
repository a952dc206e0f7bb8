#include "speech/ServerSpeechEngine.h"

#include "core/Handoff.h"
#include "core/LocalServer.h"
#include "speech/AnalyzerInputStream.h"
#include "speech/DecodingAnalyzer.h"
#include "speech/SpeechResultStream.h"
#include "speech/TranscriptionApi.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>

#include <qcoro/qcoronetworkreply.h>

#include <condition_variable>
#include <mutex>

namespace {

using Config = ServerSpeechEngine::Config;

const QString exampleAddress = QStringLiteral("http://127.0.0.1:8080/inference");

QString seconds(std::chrono::milliseconds duration) { return QString::number(duration.count() / 1000.0); }

class ServerAnalyzer;

// The HTTP side of one dictation. It lives on a network thread of its own, so requests go out and
// answers come in while the decoding thread keeps cutting segments.
class Transport final : public QObject {
public:
    Transport(Config config, ServerAnalyzer& owner) : config_(std::move(config)), owner_(owner) {}

    void probe();
    void send(int index, const QByteArray& wav);
    // Aborts every request; answers still on their way are ignored.
    void stop()
    {
        stopped_ = true;
        if (network_) {
            for (QNetworkReply* reply : network_->findChildren<QNetworkReply*>())
                reply->abort();
        }
    }

private:
    QNetworkAccessManager& network()
    {
        if (!network_)
            network_ = LocalServer::makeNetwork(QUrl(config_.endpoint));
        return *network_;
    }
    void finished(QNetworkReply* reply, int index, bool timedOut);

    const Config config_;
    ServerAnalyzer& owner_;
    LocalServer::OwnedNetwork network_;
    bool stopped_ = false;
};

class ServerAnalyzer final : public DecodingAnalyzer {
public:
    ServerAnalyzer(Config config, std::shared_ptr<SpeechEngine> fallbackEngine, std::shared_ptr<SpeechResultStream> results)
        : DecodingAnalyzer(results, AudioFormat{16000, 1}),
          config_(std::move(config)),
          fallbackEngine_(std::move(fallbackEngine)),
          results_(std::move(results)),
          segmenter_(config_.segments),
          transport_(new Transport(config_, *this))
    {
        network_.setObjectName(QStringLiteral("speech-server"));
        transport_->moveToThread(&network_);
        network_.start();
    }

    ~ServerAnalyzer() override
    {
        stopDecoding();
        Handoff::call(transport_, [t = transport_] { delete t; });
        network_.quit();
        network_.wait();
    }

    void cancelAndFinishNow() override
    {
        SpeechAnalyzer* fallback = nullptr;
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
            fallback = fallback_.get();
        }
        settled_.notify_all();
        post([](Transport& t) { t.stop(); });
        if (fallback)
            fallback->cancelAndFinishNow();
        DecodingAnalyzer::cancelAndFinishNow();
    }

    QString answeredBy() const override
    {
        std::lock_guard lock(mutex_);
        const QString server = QStringLiteral("the speech server at ") + config_.endpoint;
        if (!fallingBack_)
            return server;
        const QString fallback = fallback_ ? fallback_->answeredBy() : QStringLiteral("nothing");
        return emitted_ > 0 ? server + QStringLiteral(", then ") + fallback : fallback;
    }

    // From the transport, on the network thread.
    void answered(int index, const QString& text)
    {
        {
            std::lock_guard lock(mutex_);
            if (fallingBack_ || cancelled_)
                return;
            slots_[static_cast<size_t>(index)].text = text;
            // Answers are committed in the order of the segments: a later one waits for those before it.
            while (emitted_ < slots_.size() && slots_[emitted_].text) {
                if (!slots_[emitted_].text->isEmpty())
                    emitResult(*slots_[emitted_].text, true);
                ++emitted_;
            }
            keepOnlyUnanswered();
        }
        settled_.notify_all();
    }

    // The server cannot serve this dictation: the fallback engine takes over from the first segment
    // not yet answered. Any thread.
    void failed(const QString& why)
    {
        {
            std::lock_guard lock(mutex_);
            if (fallingBack_ || cancelled_)
                return;
            fallingBack_ = true;
            Diagnostics::log(QStringLiteral("transcriber: speech server ") + why);
            Diagnostics::log(QStringLiteral("transcriber: falling back to pocketsphinx for this dictation"));
            try {
                fallback_ = fallbackEngine_->makeAnalyzer(results_);
                fallback_->prepareToAnalyze(AudioFormat{16000, 1});
                fallbackInput_ = std::make_shared<AnalyzerInputStream>();
                fallback_->start(fallbackInput_);
                const long from = firstUnanswered() - audioBase_;
                feedFallback(audio_.data() + from, audio_.size() - static_cast<size_t>(from));
                audio_.clear();
            } catch (const std::exception& e) {
                fallbackError_ = describeError(e);
            }
        }
        settled_.notify_all();
        post([](Transport& t) { t.stop(); });
    }

protected:
    void beginDecoding() override
    {
        const QString refused = config_.endpoint.isEmpty()
                                    ? QStringLiteral("no speech server address is set")
                                    : LocalServer::refusal(config_.endpoint, config_.allowRemote, exampleAddress,
                                                           QStringLiteral("audio"));
        if (refused.isEmpty())
            post([](Transport& t) { t.probe(); });
        else
            failed(QStringLiteral("refused — ") + refused);
    }

    void decode(const AudioBuffer& buffer) override
    {
        if (!monoPcm16(buffer, pcm_))
            return;
        std::lock_guard lock(mutex_);
        if (cancelled_)
            return;
        if (fallingBack_) {
            feedFallback(pcm_.data(), pcm_.size());
            return;
        }
        audio_.insert(audio_.end(), pcm_.begin(), pcm_.end());
        for (const SpeechSegmenter::Segment& segment : segmenter_.feed(pcm_.data(), pcm_.size()))
            send(segment);
    }

    void finalizeDecoding() override
    {
        SpeechAnalyzer* fallback = nullptr;
        {
            std::unique_lock lock(mutex_);
            if (!fallingBack_) {
                // Only the unfinished segment is left to send: the wait after the key-up is one request.
                for (const SpeechSegmenter::Segment& segment : segmenter_.finish())
                    send(segment);
            }
            settled_.wait(lock, [this] { return cancelled_ || fallingBack_ || emitted_ == slots_.size(); });
            if (cancelled_ || !fallingBack_)
                return;
            if (!fallbackError_.isEmpty())
                throw CollaboratorError(fallbackError_);
            fallbackInput_->finish();
            fallback = fallback_.get();
        }
        fallback->finalizeAndFinishThroughEndOfInput();
    }

private:
    struct Slot {
        SpeechSegmenter::Segment segment;
        std::optional<QString> text;  // the answer, once it came
    };

    template <typename F>
    void post(F call)
    {
        Handoff::post(transport_, [t = transport_, call] { call(*t); });
    }

    // Under mutex_.
    void send(const SpeechSegmenter::Segment& segment)
    {
        slots_.push_back({segment, std::nullopt});
        const int index = static_cast<int>(slots_.size()) - 1;
        const QByteArray wav = TranscriptionApi::wav(audio_.data() + (segment.begin - audioBase_),
                                                     static_cast<size_t>(segment.end - segment.begin));
        post([index, wav](Transport& t) { t.send(index, wav); });
    }

    long firstUnanswered() const
    {
        return emitted_ < slots_.size() ? slots_[emitted_].segment.cut : segmenter_.open().cut;
    }

    // Drops the audio no request and no fallback can need any more.
    void keepOnlyUnanswered()
    {
        const long keepFrom = std::min(firstUnanswered(), segmenter_.open().begin);
        if (keepFrom > audioBase_) {
            audio_.erase(audio_.begin(), audio_.begin() + (keepFrom - audioBase_));
            audioBase_ = keepFrom;
        }
    }

    void feedFallback(const std::int16_t* samples, size_t count)
    {
        constexpr size_t block = 1024;
        for (size_t at = 0; at < count; at += block) {
            AudioBuffer buffer{AudioFormat{16000, 1}, {}};
            buffer.samples.reserve(std::min(block, count - at));
            for (size_t i = at; i < std::min(count, at + block); ++i)
                buffer.samples.push_back(static_cast<float>(samples[i]) / 32767.0f);
            fallbackInput_->yield(std::move(buffer));
        }
    }

    const Config config_;
    const std::shared_ptr<SpeechEngine> fallbackEngine_;
    const std::shared_ptr<SpeechResultStream> results_;
    std::vector<std::int16_t> pcm_;  // decoding thread only

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable settled_;
    SpeechSegmenter segmenter_;
    std::vector<std::int16_t> audio_;  // from audioBase_ on
    long audioBase_ = 0;
    std::vector<Slot> slots_;  // every segment sent, in order
    size_t emitted_ = 0;       // how many of them are committed
    bool cancelled_ = false;
    bool fallingBack_ = false;
    std::unique_ptr<SpeechAnalyzer> fallback_;
    std::shared_ptr<AnalyzerInputStream> fallbackInput_;
    QString fallbackError_;

    QThread network_;
    Transport* transport_;
};

void Transport::probe()
{
    QCoro::connect(ServerSpeechEngine::checkAvailability(config_), this, [this](const ServerSpeechEngine::Availability& a) {
        if (!a.available && !stopped_)
            owner_.failed(QStringLiteral("unavailable — ") + a.reason);
    });
}

void Transport::send(int index, const QByteArray& wav)
{
    if (stopped_)
        return;
    auto* multipart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    QHttpPart file;
    // Numbered, so a log on the server side can tell the segments of a dictation apart: they go out
    // side by side and may arrive in any order.
    file.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QStringLiteral("form-data; name=\"file\"; filename=\"segment-%1.wav\"").arg(index + 1).toUtf8());
    file.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("audio/wav"));
    file.setBody(wav);
    multipart->append(file);
    const TranscriptionApi::Format format = TranscriptionApi::formatOf(config_.endpoint);
    for (const TranscriptionApi::Field& field : TranscriptionApi::fields(format, config_.model, config_.language)) {
        QHttpPart part;
        part.setHeader(QNetworkRequest::ContentDispositionHeader, QByteArray("form-data; name=\"" + field.name + '"'));
        part.setBody(field.value);
        multipart->append(part);
    }
    QNetworkRequest request{QUrl(TranscriptionApi::requestUrl(config_.endpoint))};
    // Qt quotes the boundary, which not every server's form parser takes.
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("multipart/form-data; boundary=" + multipart->boundary()));
    request.setRawHeader("Accept", "application/json");
    QNetworkReply* reply = network().post(request, multipart);
    multipart->setParent(reply);
    LocalServer::limitAnswer(reply);

    auto* timer = new QTimer(reply);
    timer->setSingleShot(true);
    auto timedOut = std::make_shared<bool>(false);
    connect(timer, &QTimer::timeout, reply, [reply, timedOut] {
        *timedOut = true;
        reply->abort();
    });
    timer->start(config_.requestTimeout);
    connect(reply, &QNetworkReply::finished, this, [this, reply, index, timedOut] { finished(reply, index, *timedOut); });
}

void Transport::finished(QNetworkReply* reply, int index, bool timedOut)
{
    reply->deleteLater();
    if (stopped_)
        return;
    const QString segment = QStringLiteral("segment %1").arg(index + 1);
    if (timedOut) {
        owner_.failed(QStringLiteral("timed out — %1 got no answer from %2 within %3 s")
                          .arg(segment, config_.endpoint, seconds(config_.requestTimeout)));
        return;
    }
    const QByteArray body = LocalServer::body(reply);
    if (const QString why = LocalServer::failure(reply, body); !why.isEmpty()) {
        owner_.failed(QStringLiteral("error — %1 of %2: %3").arg(segment, config_.endpoint, why));
        return;
    }
    const std::optional<QString> text = TranscriptionApi::answerText(body);
    if (!text) {
        owner_.failed(QStringLiteral("error — %1 of %2: the answer holds no transcript").arg(segment, config_.endpoint));
        return;
    }
    owner_.answered(index, *text);
}

}  // namespace

ServerSpeechEngine::Config ServerSpeechEngine::Config::fromPreferences(const QString& locale)
{
    const Preferences& prefs = Preferences::shared();
    Config config;
    config.endpoint = LocalServer::normalizedEndpoint(prefs.value(Settings::speechEndpoint));
    config.model = prefs.value(Settings::speechModel).trimmed();
    config.allowRemote = prefs.value(Settings::speechAllowRemote);
    config.language = TranscriptionApi::languageCode(locale);
    config.requestTimeout = std::chrono::milliseconds(prefs.value(Settings::speechRequestTimeoutMs));
    return config;
}

ServerSpeechEngine::ServerSpeechEngine(Config config, std::shared_ptr<SpeechEngine> fallback)
    : config_(std::move(config)), fallback_(std::move(fallback))
{
    config_.endpoint = LocalServer::normalizedEndpoint(config_.endpoint);
}

std::unique_ptr<SpeechAnalyzer> ServerSpeechEngine::makeAnalyzer(std::shared_ptr<SpeechResultStream> results)
{
    return std::make_unique<ServerAnalyzer>(config_, fallback_, std::move(results));
}

QCoro::Task<ServerSpeechEngine::Availability> ServerSpeechEngine::checkAvailability(Config config)
{
    const QString endpoint = LocalServer::normalizedEndpoint(config.endpoint);
    Availability result;
    result.endpoint = endpoint;
    if (endpoint.isEmpty()) {
        result.reason = QStringLiteral("No server address is set");
        co_return result;
    }
    result.reason = LocalServer::refusal(endpoint, config.allowRemote, exampleAddress, QStringLiteral("audio"));
    if (!result.reason.isEmpty())
        co_return result;

    auto network = LocalServer::makeNetwork(QUrl(endpoint));
    LocalServer::OwnedReply reply(network->get(QNetworkRequest(QUrl(TranscriptionApi::probeUrl(endpoint)))));
    LocalServer::limitAnswer(reply.get());
    const bool finished = co_await qCoro(reply.get()).waitForFinished(config.availabilityTimeout);
    if (!finished) {
        reply->abort();
        result.reason = QStringLiteral("%1 did not answer within %2 seconds").arg(endpoint, seconds(config.availabilityTimeout));
        co_return result;
    }
    // Any answer shows a server is there, whatever it thinks of the probe; only a server error or
    // no answer at all counts against it.
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status == 0 || status >= 500) {
        result.reason = endpoint + QStringLiteral(": ") + LocalServer::failure(reply.get(), LocalServer::body(reply.get()));
        co_return result;
    }
    result.available = true;
    result.reason.clear();
    if (!config.model.isEmpty())
        result.model = config.model;
    else if (TranscriptionApi::formatOf(endpoint) == TranscriptionApi::Format::whisperCpp)
        result.model = QStringLiteral("whisper.cpp's model");
    else
        result.model = QStringLiteral("the server's default model");
    co_return result;
}
