#pragma once

#include "speech/AbstractModelInventory.h"

#include <QList>
#include <QString>

// The installable models as the speechModelCatalog setting lists them: a JSON array of
//   {"locale": "de-DE", "url": "https://…/de-de.tar.gz", "sha256": "…"}
namespace ModelCatalog {

// The well-formed entries in order. A text that is not such an array reads as none, and each entry
// lacking a locale, a url or a 64-digit sha256 is skipped; both are logged.
QList<ModelSource> parse(const QString& text);

}  // namespace ModelCatalog
