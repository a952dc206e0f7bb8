#pragma once

#include <QString>
#include <QUuid>
#include <QList>

#include <optional>

// A stored text the user inserts by saying "snippet <trigger>".
struct Snippet {
    QUuid id = QUuid::createUuid();
    QString trigger;
    QString replacement;

    bool operator==(const Snippet&) const = default;
};

// The snippet list, kept as a JSON array under "snippets" in the preferences store. No state of
// its own: every call reads or writes the store.
namespace SnippetStore {

QList<Snippet> load();
void save(const QList<Snippet>& list);
// The replacement when text is a snippet command naming a known trigger.
std::optional<QString> expand(const QString& text);
std::optional<QString> expand(const QString& text, const QList<Snippet>& list);

// The stored form of a list, and back; nullopt when the data is not such a list as a whole.
QByteArray encode(const QList<Snippet>& list);
std::optional<QList<Snippet>> decode(const QByteArray& data);

}  // namespace SnippetStore
