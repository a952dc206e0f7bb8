#pragma once

#include "support/LoopbackHttpServer.h"

#include <functional>
#include <vector>

// The loopback transcription server, in both wire formats Tolvane speaks: whisper.cpp's
// (POST /inference, GET / for its page) and the OpenAI-compatible one (POST /v1/audio/transcriptions,
// GET /v1/models). It takes every upload apart, reads its WAV back, and answers as a test needs.
class FakeSpeechServer final : public LoopbackHttpServer {
    Q_OBJECT
public:
    // One transcription request as received.
    struct Upload {
        QByteArray path;
        QMap<QByteArray, QByteArray> fields;  // the text fields, by name
        QByteArray fileName, fileType;        // of the part named "file"
        int segment = 0;                      // the N of the file name segment-N.wav, from 1
        // The file as libsndfile reads it (zero rate when it is not a sound file).
        int sampleRate = 0, channels = 0, format = 0;
        std::vector<float> samples;
    };

    explicit FakeSpeechServer(QObject* parent = nullptr);

    QString whisperEndpoint() const;  // http://127.0.0.1:PORT/inference
    QString openAiEndpoint() const;   // http://127.0.0.1:PORT/v1
    // Makes `endpoint` the speech server dictations use, loopback only, with `model`.
    static void configure(const QString& endpoint, const QString& model = QString());

    bool answerProbe = true;  // false: take the probe's connection and never answer
    // The answer to each upload, given its segment's index (from 0; uploads go out side by side, so
    // they may arrive in any order); the default says "segment N".
    std::function<Response(const Upload& upload, int index)> transcribe;
    // Where the upload of a segment (index from 0) is in `uploads`, which is also the order in which
    // held answers are released; -1 before it came.
    qsizetype arrivalOf(int index) const;
    QList<Upload> uploads;

    // {"text": …}, as both servers answer.
    static Response transcript(const QString& text, int delayMs = 0);

protected:
    std::optional<Response> route(const Request& request) override;
};
