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

void save(const QList<Snippet>& list)
{
    QJsonArray array;
    for (const Snippet& s : list) {
        array.append(QJsonObject{
            {QStringLiteral("id"), s.id.toString(QUuid::WithoutBraces).toUpper()},
            {QStringLiteral("trigger"), s.trigger},
            {QStringLiteral("replacement"), s.replacement},
        });
    }
    Preferences::shared().setData(storeKey, QJsonDocument(array).toJson(QJsonDocument::Compact));
}

std::optional<QString> expand(const QString& text)
{
    QString spoken = text.trimmed().toLower();
    while (!spoken.isEmpty() && isTrailingPunctuation(spoken.back()))
        spoken.chop(1);

    static const QString prefixes[] = {QStringLiteral("snippet "), QStringLiteral("snip it ")};
    QString trigger;
    bool isCommand = false;
    for (const QString& prefix : prefixes) {
        if (spoken.startsWith(prefix)) {
            trigger = trimmedBlanks(spoken.mid(prefix.size()));
            isCommand = true;
            break;
        }
    }
    if (!isCommand || trigger.isEmpty())
        return std::nullopt;

    for (const Snippet& s : load()) {
        if (trimmedBlanks(s.trigger.toLower()) == trigger)
            return s.replacement;
    }
    return std::nullopt;
}

}  // namespace SnippetStore
