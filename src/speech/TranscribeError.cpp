#include "speech/TranscribeError.h"

TranscribeError::TranscribeError(Kind kind, const QString& identifier, const QString& description)
    : CollaboratorError(description), kind_(kind), identifier_(identifier)
{
}

TranscribeError TranscribeError::unsupportedLocale(const QString& identifier)
{
    return TranscribeError(Kind::unsupportedLocale, identifier,
                           QStringLiteral("Locale ") + identifier
                               + QStringLiteral(" is not supported by the on-device SpeechTranscriber."));
}

TranscribeError TranscribeError::notPrepared()
{
    return TranscribeError(Kind::notPrepared, QString(), QStringLiteral("Transcriber not prepared. Call prepare() first."));
}
