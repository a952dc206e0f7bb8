#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <optional>

// The two wire formats of local transcription servers, as plain data handling (no network here):
// whisper.cpp's server, whose endpoint ends in /inference, and the OpenAI-compatible API under a
// base URL such as http://127.0.0.1:8000/v1 (Speaches, LocalAI, vLLM).
namespace TranscriptionApi {

enum class Format { whisperCpp, openAi };
Format formatOf(const QString& endpoint);

// Where a segment is posted, and what is asked to see whether the server answers at all.
QString requestUrl(const QString& endpoint);
QString probeUrl(const QString& endpoint);

// The text fields of the multipart request, in the order sent, besides the file. An empty model
// is left out, so the server takes its default.
struct Field {
    QByteArray name;
    QByteArray value;
    bool operator==(const Field&) const = default;
};
QList<Field> fields(Format format, const QString& model, const QString& language);

// A 16 kHz mono 16-bit PCM WAV file of the samples.
QByteArray wav(const std::int16_t* samples, std::size_t count);

// The two-letter language code of a locale: "en-US" → "en".
QString languageCode(const QString& locale);

// The transcript of an answer ({"text": …}); nullopt when the answer is not one.
std::optional<QString> answerText(const QByteArray& body);

}  // namespace TranscriptionApi
