#pragma once

#include <QString>
#include <QStringList>

#include <qcoro/qcorotask.h>

#include <memory>
#include <optional>

class SpeechEngine;

// Installation state of a language's model; prints as its case name in log lines.
enum class ModelStatus { unsupported, supported, downloading, installed };
QString modelStatusName(ModelStatus status);

// Where an installable model comes from: one entry of the model catalogue.
struct ModelSource {
    QString locale;  // BCP-47, as the catalogue writes it
    QString url;     // http(s)://, file:// or a plain path to a .tar(.gz|.xz|.bz2) archive
    QString sha256;  // hex digest of the archive

    bool operator==(const ModelSource&) const = default;
};

// Which languages can be recognised, which of their models are installed, how to install one, and
// the engine for an installed one. Locale identifiers match ignoring case. Operations that throw
// throw CollaboratorError.
class AbstractModelInventory {
public:
    virtual ~AbstractModelInventory() = default;

    // Every language with an installed or installable model, sorted.
    virtual QCoro::Task<QStringList> supportedLocales() = 0;
    virtual QCoro::Task<ModelStatus> status(QString locale) = 0;
    // What to install for the language, or none when there is nothing to install.
    virtual QCoro::Task<std::optional<ModelSource>> installationRequest(QString locale) = 0;
    // Fetches, verifies and unpacks the model; the model appears whole or not at all.
    virtual QCoro::Task<void> downloadAndInstall(ModelSource source) = 0;
    // Loads the installed model of the language.
    virtual QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) = 0;
};
