#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

// One finished dictation as recognised.
struct TranscriptEntry {
    QUuid id;           // per process only; never written to disk
    QString timestamp;  // ISO-8601 UTC with milliseconds, shown as text
    QString text;

    bool operator==(const TranscriptEntry&) const = default;
};

// The history: kept in memory, oldest first, mirrored to <data>/Tolvane/transcripts.jsonl, which is
// always replaced whole and atomically by one serial writer thread. Main thread only.
class TranscriptStore final : public QObject {
    Q_OBJECT
public:
    static TranscriptStore& shared();

    void append(const QString& text);
    void clear();
    QList<TranscriptEntry> entries() const;
    static QString fileURL();

    // Blocks until every write handed over so far has finished. For tests and shutdown.
    void waitForWrites();

Q_SIGNALS:
    // The in-memory list changed (append or clear).
    void entriesChanged();

private:
    TranscriptStore();
    ~TranscriptStore() override;
    struct Private;
    Private* d;
};
