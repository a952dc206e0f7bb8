#include "speech/ModelCatalog.h"

#include "storage/Diagnostics.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace ModelCatalog {

QList<ModelSource> parse(const QString& text)
{
    if (text.trimmed().isEmpty())
        return {};
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(text.trimmed().toUtf8(), &error);
    if (!doc.isArray()) {
        Diagnostics::log(QStringLiteral("transcriber: speechModelCatalog is not a JSON array of models (")
                         + (error.error != QJsonParseError::NoError ? error.errorString() : QStringLiteral("wrong type"))
                         + QStringLiteral("); no models are installable"));
        return {};
    }
    QList<ModelSource> sources;
    for (const QJsonValue& v : doc.array()) {
        const QJsonObject o = v.toObject();
        ModelSource s{o.value(QLatin1String("locale")).toString().trimmed(), o.value(QLatin1String("url")).toString().trimmed(),
                      o.value(QLatin1String("sha256")).toString().trimmed().toLower()};
        if (s.locale.isEmpty() || s.url.isEmpty() || s.sha256.size() != 64) {
            Diagnostics::log(QStringLiteral("transcriber: speechModelCatalog entry skipped (needs locale, url and a "
                                            "64-digit sha256): ")
                             + QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)));
            continue;
        }
        sources << s;
    }
    return sources;
}

}  // namespace ModelCatalog
