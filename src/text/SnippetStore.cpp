#include "text/SnippetStore.h"

#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString storeKey = QStringLiteral("snippets");

// Blanks are spaces and tabs, not line breaks: a trigger is matched within one line.
bool isBlank(QChar c) { return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space; }

QString trimmedBlanks(const QString& s)
{
    qsizetype begin = 0;
    qsizetype end = s.size();
    while (begin < end && isBlank(s.at(begin)))
        ++begin;
    while (end > begin && isBlank(s.at(end - 1)))
        --end;
    return s.mid(begin, end - begin);
}

bool isTrailingPunctuation(QChar c)
{
    static const QString marks = QStringLiteral(".,!?;:");
    return marks.contains(c);
}

// Only the canonical 36-character form is accepted; braces or other spellings make the list
// undecodable, as any other malformed element does.
std::optional<QUuid> parseId(const QJsonValue& v)
{
    if (!v.isString())
        return std::nullopt;
    const QString text = v.toString();
    if (text.size() != 36)
        return std::nullopt;
    const QUuid id = QUuid::fromString(text);
    if (id.isNull() && text != QUuid().toString(QUuid::WithoutBraces))
        return std::nullopt;
    return id;
}

// The trigger a snippet command names, lower-case, or nullopt when the text is no such command.
std::optional<QString> spokenTrigger(const QString& text)
{
    QString spoken = text.trimmed().toLower();
    while (!spoken.isEmpty() && isTrailingPunctuation(spoken.back()))
        spoken.chop(1);

    static const QString prefixes[] = {QStringLiteral("snippet "), QStringLiteral("snip it ")};
    for (const QString& prefix : prefixes) {
        if (spoken.startsWith(prefix)) {
            QString trigger = trimmedBlanks(spoken.mid(prefix.size()));
            if (trigger.isEmpty())
                return std::nullopt;
            return trigger;
        }
    }
    return std::nullopt;
}

}  // namespace

namespace SnippetStore {

QList<Snippet> load()
{
    const std::optional<QByteArray> data = Preferences::shared().dataValue(storeKey);
    if (!data)
        return {};
    std::optional<QList<Snippet>> snippets = decode(*data);
    if (!snippets) {
        // Left where it is, but the next save replaces it: keep a copy beside it, and say so once.
        const QString copyKey = storeKey + QStringLiteral(".damaged");
        if (Preferences::shared().dataValue(copyKey) != data) {
            Preferences::shared().setData(copyKey, *data);
            Diagnostics::log(QStringLiteral("snippets: the stored snippets cannot be read; none are offered, and the data "
                                            "as it was is kept under \"%1\" in %2")
                                 .arg(copyKey, Preferences::shared().storePath()));
        }
        return {};
    }
    return *snippets;
}

std::optional<QList<Snippet>> decode(const QByteArray& data)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray())
        return std::nullopt;
    QList<Snippet> list;
    for (const QJsonValue& element : doc.array()) {
        if (!element.isObject())
            return std::nullopt;
        const QJsonObject o = element.toObject();
        const auto id = parseId(o.value(QLatin1String("id")));
        const QJsonValue trigger = o.value(QLatin1String("trigger"));
        const QJsonValue replacement = o.value(QLatin1String("replacement"));
        if (!id || !trigger.isString() || !replacement.isString())
            return std::nullopt;
        list.append(Snippet{*id, trigger.toString(), replacement.toString()});
    }
    return list;
}

QByteArray encode(const QList<Snippet>& list)
{
    QJsonArray array;
    for (const Snippet& s : list) {
        array.append(QJsonObject{
            {QStringLiteral("id"), s.id.toString(QUuid::WithoutBraces).toUpper()},
            {QStringLiteral("trigger"), s.trigger},
            {QStringLiteral("replacement"), s.replacement},
        });
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

void save(const QList<Snippet>& list) { Preferences::shared().setData(storeKey, encode(list)); }

std::optional<QString> expand(const QString& text)
{
    // The store is read only for a snippet command.
    if (!spokenTrigger(text))
        return std::nullopt;
    return expand(text, load());
}

std::optional<QString> expand(const QString& text, const QList<Snippet>& list)
{
    const std::optional<QString> trigger = spokenTrigger(text);
    if (!trigger)
        return std::nullopt;
    for (const Snippet& s : list) {
        if (trimmedBlanks(s.trigger.toLower()) == *trigger)
            return s.replacement;
    }
    return std::nullopt;
}

}  // namespace SnippetStore
