#include "core/LocalServer.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace LocalServer {

QString normalizedEndpoint(const QString& endpoint)
{
    QString s = endpoint.trimmed();
    while (s.endsWith(QLatin1Char('/')))
        s.chop(1);
    return s;
}

bool isLoopback(const QUrl& url)
{
    const QString host = url.host();
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

QString refusal(const QString& endpoint, bool allowRemote, const QString& example, const QString& what)
{
    const QUrl url(endpoint, QUrl::StrictMode);
    const QString scheme = url.scheme();
    if (!url.isValid() || url.host().isEmpty() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        return QStringLiteral("“%1” is not a server address such as %2").arg(endpoint, example);
    if (!isLoopback(url) && !allowRemote)
        return QStringLiteral("%1 is not on this computer, and sending %2 to other computers is not allowed").arg(endpoint, what);
    return {};
}

OwnedNetwork makeNetwork(const QUrl& endpoint)
{
    OwnedNetwork network(new QNetworkAccessManager);
    network->setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
    if (isLoopback(endpoint))
        network->setProxy(QNetworkProxy::NoProxy);
    return network;
}

namespace {
const char* const exceededProperty = "tolvaneAnswerLimitExceeded";
}  // namespace

void LaterDeleter::operator()(QObject* object) const
{
    if (object)
        object->deleteLater();
}

void limitAnswer(QNetworkReply* reply, qint64 limit)
{
    auto stop = [reply, limit] {
        reply->setProperty(exceededProperty, limit);
        reply->abort();
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, limit, stop] {
        if (reply->header(QNetworkRequest::ContentLengthHeader).toLongLong() > limit)
            stop();
    });
    // Checked as the bytes arrive, so no more than one network read beyond the limit is ever held.
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply, [limit, stop](qint64 received, qint64) {
        if (received > limit)
            stop();
    });
}

QByteArray body(QNetworkReply* reply) { return reply->isOpen() ? reply->readAll() : QByteArray(); }

QString errorMessage(const QByteArray& body)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return {};
    const QJsonValue value = doc.object().value(QLatin1String("error"));
    if (value.isString())
        return value.toString();
    return value.toObject().value(QLatin1String("message")).toString();
}

QString failure(QNetworkReply* reply, const QByteArray& body)
{
    if (const QVariant limit = reply->property(exceededProperty); limit.isValid())
        return QStringLiteral("the server's answer is larger than %1 MiB, so it was not read").arg(limit.toLongLong() / (1024 * 1024));
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 300) {
        const QString message = errorMessage(body);
        return QStringLiteral("the server answered HTTP %1").arg(status)
               + (message.isEmpty() ? QString() : QStringLiteral(": ") + message);
    }
    if (reply->error() != QNetworkReply::NoError)
        return reply->errorString();
    return {};
}

}  // namespace LocalServer
