#pragma once

#include "core/Collaborators.h"

#include <QString>

// The transcriber's own errors. Failures of the engine and the model inventory pass through as
// plain CollaboratorError.
class TranscribeError final : public CollaboratorError {
public:
    enum class Kind { unsupportedLocale, notPrepared };

    static TranscribeError unsupportedLocale(const QString& identifier);
    static TranscribeError notPrepared();

    Kind kind() const { return kind_; }
    QString identifier() const { return identifier_; }  // for unsupportedLocale
    QString errorDescription() const { return localizedDescription(); }

private:
    TranscribeError(Kind kind, const QString& identifier, const QString& description);

    Kind kind_;
    QString identifier_;
};
