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

    // A store over another file, read at once. The program uses shared() only; tests make their own
    // to start from a given file or to read it again as after a restart.
    explicit TranscriptStore(const QString& filePath, QObject* parent = nullptr);
    // Waits for pending writes, so nothing handed over is lost.
    ~TranscriptStore() override;

    void append(const QString& text);
    void clear();
    QList<TranscriptEntry> entries() const;
    static QString fileURL();
    // The file this instance mirrors.
    QString filePath() const;

    // Blocks until every write handed over so far has finished. For tests and shutdown.
    void waitForWrites();

    // What the bytes of a history file hold: its records in order and how many lines were not
    // records. Bytes that are not UTF-8 as a whole hold nothing.
    struct Contents {
        QList<TranscriptEntry> entries;
        int unreadableLines = 0;
        bool notUtf8 = false;
    };
    static Contents parse(const QByteArray& bytes);
    // The file's bytes for these entries, one JSON object per line.
    static QByteArray encode(const QList<TranscriptEntry>& entries);

Q_SIGNALS:
    // The in-memory list changed (append or clear).
    void entriesChanged();

private:
    TranscriptStore();
    struct Private;
    Private* d;
};
