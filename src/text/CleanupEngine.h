#pragma once

#include "core/CleanupMode.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <chrono>

#include <qcoro/qcorotask.h>

// Rewrites a transcript in a cleanup mode through a local language-model server speaking the
// OpenAI-compatible chat API. Never fails towards its caller: without a usable model the answer is
// the input unchanged.
class CleanupEngine : public QObject {
    Q_OBJECT
public:
    explicit CleanupEngine(QObject* parent = nullptr);
    ~CleanupEngine() override;

    virtual QCoro::Task<QString> process(QString text, CleanupMode mode);

    // Whether a model answers within the availability timeout; the model name found, if any.
    struct Availability {
        bool available = false;
        QString endpoint;  // base URL ending in /v1
        QString model;
        QString reason;    // why not, readable
    };
    virtual QCoro::Task<Availability> checkAvailability();

    // How long the model list may take before the server counts as unavailable.
    static constexpr std::chrono::milliseconds availabilityTimeout{2000};
    // Tried in order when no endpoint is configured: Ollama, then llama.cpp's server.
    static QStringList defaultWellKnownEndpoints();
    // Tests point discovery at their own servers.
    void setWellKnownEndpoints(const QStringList& endpoints);
    QStringList wellKnownEndpoints() const;

    static QString instructions(CleanupMode mode);  // empty for raw
    static QString prompt(const QString& text);
    static QString cleanAnswer(const QString& answer);
    // User-perceived characters, as the log line counts them (an emoji is one).
    static int characterCount(const QString& text);

private:
    QStringList wellKnown_;
};
