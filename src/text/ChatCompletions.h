#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// The few pieces of the OpenAI-compatible chat API that cleanup uses, as plain data handling: no
// network here, so every odd answer a server can give is testable without one.
namespace ChatCompletions {

// {"model", "messages": [system, user], "temperature": 0.2}; no token limit.
QByteArray requestBody(const QString& model, const QString& instructions, const QString& prompt);

// The ids of a GET /models answer ({"data": [{"id": …}, …]}), in the server's order; nullopt when
// the answer is not such a list.
std::optional<QStringList> modelIds(const QByteArray& body);
// choices[0].message.content of a chat answer; nullopt when absent or not text.
std::optional<QString> answerContent(const QByteArray& body);

}  // namespace ChatCompletions
