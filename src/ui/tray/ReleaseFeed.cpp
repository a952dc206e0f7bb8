#include "ui/tray/ReleaseFeed.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QRegularExpression>
#include <QXmlStreamReader>

namespace {

QString normalised(QString v)
{
    v = v.trimmed();
    if (v.startsWith(QLatin1Char('v')) || v.startsWith(QLatin1Char('V')))
        v.remove(0, 1);
    return v;
}

std::optional<ReleaseFeed> newest(const QList<ReleaseFeed>& releases)
{
    std::optional<ReleaseFeed> best;
    for (const ReleaseFeed& r : releases) {
        if (!ReleaseFeed::isVersion(r.version))
            continue;
        if (!best || ReleaseFeed::compareVersions(r.version, best->version) > 0)
            best = r;
    }
    return best;
}

ReleaseFeed fromJson(const QJsonObject& o)
{
    ReleaseFeed r;
    r.version = normalised(o.value(QLatin1String("version")).toString(o.value(QLatin1String("tag_name")).toString()));
    r.link = o.value(QLatin1String("url")).toString(o.value(QLatin1String("html_url")).toString());
    return r;
}

QList<ReleaseFeed> fromAppcast(const QByteArray& body, QString* error)
{
    QList<ReleaseFeed> out;
    QXmlStreamReader xml(body);
    bool inItem = false;
    ReleaseFeed current;
    QString title;
    QString shortVersion;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            const auto name = xml.name();
            if (name == QLatin1String("item") || name == QLatin1String("entry")) {
                inItem = true;
                current = {};
                title.clear();
                shortVersion.clear();
            } else if (inItem && name == QLatin1String("enclosure")) {
                const auto attrs = xml.attributes();
                for (const auto& a : attrs) {
                    if (a.name() == QLatin1String("shortVersionString"))
                        shortVersion = a.value().toString();
                    else if (a.name() == QLatin1String("version") && current.version.isEmpty())
                        current.version = a.value().toString();
                }
            } else if (inItem && name == QLatin1String("shortVersionString")) {
                shortVersion = xml.readElementText();
            } else if (inItem && name == QLatin1String("version")) {
                current.version = xml.readElementText();
            } else if (inItem && name == QLatin1String("title")) {
                title = xml.readElementText();
            } else if (inItem && name == QLatin1String("link")) {
                const QString href = xml.attributes().value(QLatin1String("href")).toString();
                current.link = href.isEmpty() ? xml.readElementText().trimmed() : href;
            }
        } else if (xml.isEndElement() && inItem &&
                   (xml.name() == QLatin1String("item") || xml.name() == QLatin1String("entry"))) {
            inItem = false;
            if (!shortVersion.isEmpty())
                current.version = shortVersion;
            if (current.version.isEmpty()) {
                // A title such as "Tolvane 1.2.0": its last word.
                static const QRegularExpression last(QStringLiteral(R"((\S+)\s*$)"));
                current.version = last.match(title).captured(1);
            }
            current.version = normalised(current.version);
            out << current;
        }
    }
    if (xml.hasError() && error)
        *error = QStringLiteral("not valid XML (%1)").arg(xml.errorString());
    return out;
}

}  // namespace

bool ReleaseFeed::isVersion(const QString& text)
{
    static const QRegularExpression re(QStringLiteral(R"(^[vV]?\d+(\.\d+)*([-+~][0-9A-Za-z.+~-]*)?$)"));
    return re.match(text.trimmed()).hasMatch();
}

int ReleaseFeed::compareVersions(const QString& a, const QString& b)
{
    auto split = [](const QString& v) {
        const QString n = normalised(v);
        const qsizetype cut = n.indexOf(QRegularExpression(QStringLiteral("[-+~]")));
        const QString core = cut < 0 ? n : n.left(cut);
        // Build metadata ("+…") does not order; a pre-release ("-…", "~…") does.
        QString pre = cut < 0 || n.at(cut) == QLatin1Char('+') ? QString() : n.mid(cut + 1);
        QList<qulonglong> parts;
        for (const QString& p : core.split(QLatin1Char('.')))
            parts << p.toULongLong();
        return std::pair{parts, pre};
    };
    const auto [pa, prea] = split(a);
    const auto [pb, preb] = split(b);
    for (qsizetype i = 0; i < std::max(pa.size(), pb.size()); ++i) {
        const qulonglong x = i < pa.size() ? pa[i] : 0;
        const qulonglong y = i < pb.size() ? pb[i] : 0;
        if (x != y)
            return x < y ? -1 : 1;
    }
    if (prea.isEmpty() != preb.isEmpty())
        return prea.isEmpty() ? 1 : -1;
    return QString::compare(prea, preb);
}

std::optional<ReleaseFeed> ReleaseFeed::parse(const QByteArray& body, QString* error)
{
    auto fail = [error](const QString& why) -> std::optional<ReleaseFeed> {
        if (error)
            *error = why;
        return std::nullopt;
    };
    const QByteArray trimmed = body.trimmed();
    if (trimmed.isEmpty())
        return fail(QStringLiteral("the feed is empty"));

    if (trimmed.startsWith('{') || trimmed.startsWith('[')) {
        QJsonParseError jsonError{};
        const QJsonDocument doc = QJsonDocument::fromJson(trimmed, &jsonError);
        if (doc.isNull())
            return fail(QStringLiteral("not valid JSON (%1)").arg(jsonError.errorString()));
        QList<ReleaseFeed> releases;
        if (doc.isObject()) {
            releases << fromJson(doc.object());
        } else {
            for (const QJsonValue& v : doc.array())
                releases << fromJson(v.toObject());
        }
        if (auto best = newest(releases))
            return best;
        return fail(QStringLiteral("no release with a version number in it"));
    }

    if (trimmed.startsWith('<')) {
        QString xmlError;
        const auto best = newest(fromAppcast(trimmed, &xmlError));
        if (best)
            return best;
        return fail(xmlError.isEmpty() ? QStringLiteral("no release with a version number in it") : xmlError);
    }

    const QString text = QString::fromUtf8(trimmed);
    if (!text.contains(QLatin1Char('\n')) && isVersion(text))
        return ReleaseFeed{normalised(text), QString()};
    return fail(QStringLiteral("neither JSON, an RSS appcast nor a version number"));
}
