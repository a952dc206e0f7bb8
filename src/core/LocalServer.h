#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class QObject;

// What every local HTTP server Tolvane talks to has in common (the cleanup model, the speech
// server): how its address is read and checked, how it is reached, and how a failed answer reads.
namespace LocalServer {

// The base URL as the user typed it, trimmed and without trailing slashes.
QString normalizedEndpoint(const QString& endpoint);
// Whether the URL's host is this computer: "localhost", 127.0.0.0/8 or ::1. Names are not looked
// up, so a name that merely resolves to a loopback address still counts as remote.
bool isLoopback(const QUrl& url);
// Why the endpoint may not be used, or an empty string: it is not an http(s) address (`example`
// shows one), or it is not on this computer and the user has not allowed that. `what` is what
// would be sent ("text", "audio").
QString refusal(const QString& endpoint, bool allowRemote, const QString& example, const QString& what);

// Owns a reply, or the network manager whose child it is, in a coroutine. The coroutine resumes
// inside the reply's finished signal, and a reply deleted there, directly or with its manager, is
// still in use by Qt (an answer aborted past the limit crashed): they go with deleteLater instead.
struct LaterDeleter {
    void operator()(QObject* object) const;
};
using OwnedReply = std::unique_ptr<QNetworkReply, LaterDeleter>;
using OwnedNetwork = std::unique_ptr<QNetworkAccessManager, LaterDeleter>;

// A network manager of its own for a server: loopback traffic never goes through a proxy, and
// redirects are not followed, so a local server cannot send what it is given elsewhere.
OwnedNetwork makeNetwork(const QUrl& endpoint);

// The most an answer of a local server may hold. Cleanup answers and transcripts are a few
// kilobytes; a server that sends without end must not fill the memory.
constexpr qint64 maxAnswerBytes = 4 * 1024 * 1024;
// Aborts `reply` as soon as it announces or has received more than `limit` bytes; failure() then
// says that the answer was too large.
void limitAnswer(QNetworkReply* reply, qint64 limit = maxAnswerBytes);

// What a finished reply holds; nothing when it was aborted (past the limit, or out of time).
QByteArray body(QNetworkReply* reply);

// The message of a JSON error answer ({"error": {"message": …}} or {"error": "…"}), if it has one.
QString errorMessage(const QByteArray& body);
// What went wrong with a finished reply, in words, or an empty string when it succeeded.
QString failure(QNetworkReply* reply, const QByteArray& body);

}  // namespace LocalServer
