#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

// The few pieces of the OpenAI-compatible chat API that cleanup uses, as plain data handling: no
// network here, so every odd answer a server can give is testable without one.
namespace ChatCompletions {

// The base URL as the user typed it, trimmed and without trailing slashes ("…/v1").
QString normalizedEndpoint(const QString& endpoint);
// Whether the URL's host is this computer: "localhost", 127.0.0.0/8 or ::1. Names are not looked
// up, so a name that merely resolves to a loopback address still counts as remote.
bool isLoopback(const QUrl& url);

// {"model", "messages": [system, user], "temperature": 0.2}; no token limit.
QByteArray requestBody(const QString& model, const QString& instructions, const QString& prompt);

// The ids of a GET /models answer ({"data": [{"id": …}, …]}), in the server's order; nullopt when
// the answer is not such a list.
std::optional<QStringList> modelIds(const QByteArray& body);
// choices[0].message.content of a chat answer; nullopt when absent or not text.
std::optional<QString> answerContent(const QByteArray& body);
// The message of an error answer ({"error": {"message": …}} or {"error": "…"}), if it has one.
QString errorMessage(const QByteArray& body);

}  // namespace ChatCompletions
