#include "storage/TranscriptStore.h"

#include "core/Handoff.h"
#include "storage/DataLocation.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStringDecoder>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

const QString tsKey = QStringLiteral("ts");
const QString textKey = QStringLiteral("text");

// A line is a record when it is a JSON object of strings only that has both keys; anything else
// (including a stray number where a string belongs) is skipped.
std::optional<TranscriptEntry> parseLine(const QByteArray& line)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject o = doc.object();
    for (auto it = o.begin(); it != o.end(); ++it) {
        if (!it.value().isString())
            return std::nullopt;
    }
    if (!o.contains(tsKey) || !o.contains(textKey))
        return std::nullopt;
    return TranscriptEntry{QUuid::createUuid(), o.value(tsKey).toString(), o.value(textKey).toString()};
}

// Says what could not be read, and keeps a copy of the file: the next append replaces it whole.
void reportDamage(const QString& path, const QString& what)
{
    const QString copy = keepDamagedCopy(path);
    Diagnostics::log(QStringLiteral("history: %1 in %2; ").arg(what, path)
                     + (copy.isEmpty() ? QStringLiteral("no copy of it could be made")
                                       : QStringLiteral("the file as it was is kept in ") + copy));
}

QList<TranscriptEntry> readFromDisk(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const TranscriptStore::Contents contents = TranscriptStore::parse(file.readAll());
    // A file that is not UTF-8 as a whole is not ours: start afresh.
    if (contents.notUtf8)
        reportDamage(path, QStringLiteral("text that is not UTF-8"));
    else if (contents.unreadableLines > 0)
        reportDamage(path, QStringLiteral("%1 unreadable line(s) skipped").arg(contents.unreadableLines));
    return contents.entries;
}

QByteArray encodeLine(const TranscriptEntry& e)
{
    return QJsonDocument(QJsonObject{{tsKey, e.timestamp}, {textKey, e.text}}).toJson(QJsonDocument::Compact);
}

// Replaces the file whole: the new text goes to a temporary file beside it, which is renamed over
// the old one only once it is complete and on disk, so a crash or a full disk never leaves a partial
// history. A failure says so in one line; the previous file stays as it was.
void writeWhole(const QString& path, const QByteArray& contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    QString error;
    // Unbuffered, so a full disk shows in the write's count: a buffered QSaveFile loses the
    // failure of its last flush and commits a cut file.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        error = file.errorString();
    } else if (file.write(contents) != contents.size() || ::fdatasync(file.handle()) != 0) {
        error = file.error() != QFileDevice::NoError ? file.errorString() : QString::fromLocal8Bit(std::strerror(errno));
        file.cancelWriting();
        file.commit();  // discards the temporary file
    } else if (!file.commit()) {
        error = file.errorString();
    }
    if (!error.isEmpty())
        Diagnostics::log(QStringLiteral("history: could not write %1 (%2); the file keeps what it held before").arg(path, error));
}

// A writer killed in the middle of a write leaves its temporary file ("transcripts.jsonl.XXXXXX")
// behind. The program's own store is the file's only writer, so when it starts any such file is
// stale. (Other instances only read, and must not touch a running writer's file.)
void removeStaleTemporaryFiles(const QString& path)
{
    const QFileInfo file(path);
    QDir dir = file.absoluteDir();
    static const QRegularExpression temporary(QStringLiteral("^\\.[A-Za-z0-9]{6}$"));
    for (const QString& name : dir.entryList({file.fileName() + QStringLiteral(".*")}, QDir::Files | QDir::Hidden)) {
        if (temporary.match(QStringView(name).mid(file.fileName().size())).hasMatch())
            dir.remove(name);
    }
}

}  // namespace

struct TranscriptStore::Private {
    QString path;
    QList<TranscriptEntry> cache;
    QThread writer;
    QObject* writerContext = nullptr;  // lives on the writer thread; queued jobs run there in order

    void enqueue(QByteArray contents)
    {
        Handoff::post(writerContext, [path = path, contents = std::move(contents)] { writeWhole(path, contents); });
    }
};

TranscriptStore& TranscriptStore::shared()
{
    static TranscriptStore* instance = [] {
        removeStaleTemporaryFiles(fileURL());
        return new TranscriptStore();  // lives until the process ends
    }();
    return *instance;
}

TranscriptStore::TranscriptStore() : TranscriptStore(fileURL()) {}

TranscriptStore::TranscriptStore(const QString& filePath, QObject* parent) : QObject(parent), d(new Private)
{
    d->path = filePath;
    d->writer.setObjectName(QStringLiteral("transcripts"));
    d->writerContext = new QObject;
    d->writerContext->moveToThread(&d->writer);
    d->writer.start(QThread::LowPriority);
    d->cache = readFromDisk(d->path);
    // Writes handed over just before quitting still reach the disk.
    if (QCoreApplication* app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &TranscriptStore::waitForWrites);
}

TranscriptStore::~TranscriptStore()
{
    waitForWrites();
    d->writer.quit();
    d->writer.wait();
    delete d->writerContext;
    delete d;
}

QString TranscriptStore::fileURL() { return tolvaneDataDirectory() + QStringLiteral("/transcripts.jsonl"); }

QString TranscriptStore::filePath() const { return d->path; }

QList<TranscriptEntry> TranscriptStore::entries() const { return d->cache; }

void TranscriptStore::append(const QString& text)
{
    Preferences& prefs = Preferences::shared();
    if (!prefs.historyEnabled())
        return;
    const int limit = prefs.historyRetention();

    d->cache.append(TranscriptEntry{QUuid::createUuid(),
                                    QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs), text});
    if (d->cache.size() > limit)
        d->cache.remove(0, d->cache.size() - limit);

    // The snapshot is taken here, so each queued write carries the whole history as it is now.
    d->enqueue(encode(d->cache));
    Q_EMIT entriesChanged();
}

void TranscriptStore::clear()
{
    d->cache.clear();
    d->enqueue(QByteArray());
    Q_EMIT entriesChanged();
}

TranscriptStore::Contents TranscriptStore::parse(const QByteArray& bytes)
{
    Contents result;
    QStringDecoder utf8(QStringDecoder::Utf8);
    const QString text = utf8(bytes);
    if (utf8.hasError()) {
        result.notUtf8 = true;
        return result;
    }
    for (const QStringView line : QStringView(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (auto entry = parseLine(line.toUtf8()))
            result.entries.append(*entry);
        else
            ++result.unreadableLines;
    }
    return result;
}

QByteArray TranscriptStore::encode(const QList<TranscriptEntry>& entries)
{
    QByteArray contents;
    for (const TranscriptEntry& e : entries) {
        contents += encodeLine(e);
        contents += '\n';
    }
    return contents;
}

void TranscriptStore::waitForWrites()
{
    if (QThread::currentThread() == &d->writer)
        return;
    // Jobs run in order, so once this empty one has run every earlier write has finished.
    Handoff::call(d->writerContext, [] {});
}
