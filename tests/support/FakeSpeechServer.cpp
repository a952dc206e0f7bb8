#include "support/FakeSpeechServer.h"

#include "storage/Preferences.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryFile>

#include <sndfile.h>

namespace {

// The sound file as libsndfile reads it, through a file of its own in the sandbox's TMPDIR.
void readSound(const QByteArray& bytes, FakeSpeechServer::Upload& upload)
{
    QTemporaryFile copy;
    if (!copy.open() || copy.write(bytes) != bytes.size() || !copy.flush())
        return;
    SF_INFO info{};
    SNDFILE* file = sf_open(QFile::encodeName(copy.fileName()).constData(), SFM_READ, &info);
    if (!file)
        return;
    upload.sampleRate = info.samplerate;
    upload.channels = info.channels;
    upload.format = info.format;
    upload.samples.resize(static_cast<size_t>(info.frames * info.channels));
    upload.samples.resize(static_cast<size_t>(sf_readf_float(file, upload.samples.data(), info.frames) * info.channels));
    sf_close(file);
}

QByteArray quoted(const QByteArray& header, const char* name)
{
    const QRegularExpression re(QStringLiteral("%1=\"([^\"]*)\"").arg(QLatin1String(name)));
    return re.match(QString::fromUtf8(header)).captured(1).toUtf8();
}

FakeSpeechServer::Upload parseUpload(const LoopbackHttpServer::Request& request)
{
    FakeSpeechServer::Upload upload;
    upload.path = request.path;
    const QByteArray type = request.headers.value("content-type");
    const qsizetype at = type.indexOf("boundary=");
    if (!type.startsWith("multipart/form-data") || at < 0)
        return upload;
    QByteArray boundary = type.mid(at + 9);
    if (boundary.startsWith('"'))
        boundary = boundary.mid(1, boundary.size() - 2);
    const QByteArray delimiter = "--" + boundary;
    QList<QByteArray> parts;
    for (qsizetype from = 0, next; (next = request.body.indexOf(delimiter, from)) >= 0; from = next + delimiter.size())
        parts << request.body.mid(from, next - from);
    for (const QByteArray& part : std::as_const(parts)) {
        const qsizetype headerEnd = part.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            continue;
        QByteArray disposition, partType;
        for (const QByteArray& line : part.left(headerEnd).split('\n')) {
            if (line.trimmed().toLower().startsWith("content-disposition:"))
                disposition = line.trimmed();
            else if (line.trimmed().toLower().startsWith("content-type:"))
                partType = line.mid(line.indexOf(':') + 1).trimmed();
        }
        const QByteArray body = part.mid(headerEnd + 4).chopped(2);  // the line break before the next boundary
        const QByteArray name = quoted(disposition, "name");
        if (name == "file") {
            upload.fileName = quoted(disposition, "filename");
            if (upload.fileName.startsWith("segment-") && upload.fileName.endsWith(".wav"))
                upload.segment = upload.fileName.mid(8).chopped(4).toInt();
            upload.fileType = partType;
            readSound(body, upload);
        } else {
            upload.fields.insert(name, body);
        }
    }
    return upload;
}

}  // namespace

FakeSpeechServer::FakeSpeechServer(QObject* parent) : LoopbackHttpServer(parent)
{
    transcribe = [](const Upload&, int index) { return transcript(QStringLiteral("segment %1").arg(index + 1)); };
}

qsizetype FakeSpeechServer::arrivalOf(int index) const
{
    for (qsizetype i = 0; i < uploads.size(); ++i)
        if (uploads[i].segment == index + 1)
            return i;
    return -1;
}

QString FakeSpeechServer::whisperEndpoint() const { return url(QStringLiteral("/inference")); }

QString FakeSpeechServer::openAiEndpoint() const { return url(QStringLiteral("/v1")); }

void FakeSpeechServer::configure(const QString& endpoint, const QString& model)
{
    Preferences& p = Preferences::shared();
    p.setSpeechEngine(SpeechEngineKind::server);
    p.setValue(Settings::speechEndpoint, endpoint);
    p.setValue(Settings::speechModel, model);
    p.setValue(Settings::speechAllowRemote, false);
}

FakeSpeechServer::Response FakeSpeechServer::transcript(const QString& text, int delayMs)
{
    return Response{200, QJsonDocument(QJsonObject{{QStringLiteral("text"), text}}).toJson(QJsonDocument::Compact), delayMs};
}

std::optional<FakeSpeechServer::Response> FakeSpeechServer::route(const Request& request)
{
    if (request.method == "GET" && (request.path == "/" || request.path == "/v1/models")) {
        if (!answerProbe)
            return std::nullopt;
        return Response{200, "{}", 0};
    }
    if (request.method == "POST" && (request.path == "/inference" || request.path == "/v1/audio/transcriptions")) {
        uploads << parseUpload(request);
        return transcribe(uploads.last(), uploads.last().segment - 1);
    }
    return error(404, QStringLiteral("no such route"));
}
