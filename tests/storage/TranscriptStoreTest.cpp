#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

QByteArray readBytes(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(f.write(bytes), bytes.size());
}

ino_t inodeOf(const QString& path)
{
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_ino : 0;
}

QStringList texts(const QList<TranscriptEntry>& entries)
{
    QStringList out;
    for (const TranscriptEntry& e : entries)
        out << e.text;
    return out;
}

// The file's records as (ts, text), checking that every line is one complete JSON object of two
// strings and that the file ends with a line feed.
QList<QPair<QString, QString>> records(const QByteArray& bytes, bool* wellFormed)
{
    *wellFormed = bytes.isEmpty() || bytes.endsWith('\n');
    QList<QPair<QString, QString>> out;
    QByteArray body = bytes;
    if (body.endsWith('\n'))
        body.chop(1);
    if (body.isEmpty())
        return out;
    for (const QByteArray& line : body.split('\n')) {
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        if (o.size() != 2 || !o.value(QLatin1String("ts")).isString() || !o.value(QLatin1String("text")).isString())
            *wellFormed = false;
        out.append({o.value(QLatin1String("ts")).toString(), o.value(QLatin1String("text")).toString()});
    }
    return out;
}

// Files may only grow up to `bytes` while this lives: a write past it fails as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        oldHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        ok_ = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, oldHandler_);
    }
    bool ok() const { return ok_; }

private:
    rlimit saved_{};
    void (*oldHandler_)(int) = nullptr;
    bool ok_ = false;
};

}  // namespace

class TranscriptStoreTest : public QObject {
    Q_OBJECT
    QTemporaryDir dir_;
    QString path_;

private Q_SLOTS:
    // Runs first, before anything has made the shared instance.
    void sharedInstanceReadsTheDataFolderFileWhenFirstMade()
    {
        const QString expected =
            QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Tolvane/transcripts.jsonl");
        QCOMPARE(TranscriptStore::fileURL(), expected);
        QVERIFY(QDir(QFileInfo(expected).absolutePath()).exists());  // computing it makes the folder
        writeBytes(expected, R"({"ts":"2026-03-14T09:26:53.589Z","text":"from before"})" "\n");
        TranscriptStore& store = TranscriptStore::shared();
        QCOMPARE(texts(store.entries()), QStringList{QStringLiteral("from before")});
        QCOMPARE(store.entries().first().timestamp, QStringLiteral("2026-03-14T09:26:53.589Z"));
    }

    void init()
    {
        QVERIFY(dir_.isValid());
        path_ = dir_.filePath(QStringLiteral("case/transcripts.jsonl"));
        QDir(dir_.path()).removeRecursively();
        QDir().mkpath(dir_.filePath(QStringLiteral("case")));
        Preferences::shared().setHistoryEnabled(true);
        Preferences::shared().setHistoryRetention(10);
    }

    void retentionKeepsTheLastEntriesOldestFirst()
    {
        Preferences::shared().setHistoryRetention(3);
        TranscriptStore store(path_);
        QSignalSpy changed(&store, &TranscriptStore::entriesChanged);
        const QDateTime before = QDateTime::currentDateTimeUtc().addMSecs(-1);
        for (int i = 1; i <= 5; ++i)
            store.append(QStringLiteral("t%1").arg(i));
        store.waitForWrites();
        QCOMPARE(changed.count(), 5);

        QCOMPARE(texts(store.entries()), (QStringList{QStringLiteral("t3"), QStringLiteral("t4"), QStringLiteral("t5")}));
        bool ok = false;
        const auto onDisk = records(readBytes(path_), &ok);
        QVERIFY(ok);
        QCOMPARE(onDisk.size(), 3);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(onDisk.at(i), qMakePair(store.entries().at(i).timestamp, store.entries().at(i).text));
            static const QRegularExpression iso(QStringLiteral(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$)"));
            const QDateTime stamp = QDateTime::fromString(onDisk.at(i).first, Qt::ISODateWithMs);
            QVERIFY2(iso.match(onDisk.at(i).first).hasMatch() && stamp >= before && stamp <= QDateTime::currentDateTimeUtc(),
                     qPrintable(onDisk.at(i).first));
        }
    }

    void longerFileLoadsWholeAndIsTrimmedAtNextAppend()
    {
        QByteArray bytes;
        for (int i = 1; i <= 6; ++i)
            bytes += QStringLiteral(R"({"ts":"x","text":"old%1"})").arg(i).toUtf8() + '\n';
        writeBytes(path_, bytes);
        Preferences::shared().setHistoryRetention(2);
        TranscriptStore store(path_);
        QCOMPARE(store.entries().size(), 6);
        store.append(QStringLiteral("new"));
        store.waitForWrites();
        QCOMPARE(texts(store.entries()), (QStringList{QStringLiteral("old6"), QStringLiteral("new")}));
        QCOMPARE(TranscriptStore(path_).entries().size(), 2);
    }

    void historyOffLeavesFileAndEntriesAlone()
    {
        // Odd spacing and member order, so any rewrite would show.
        const QByteArray bytes = "{ \"text\" : \"kept\",  \"ts\":\"a\\/b\"}\n\n";
        writeBytes(path_, bytes);
        TranscriptStore store(path_);
        QSignalSpy changed(&store, &TranscriptStore::entriesChanged);
        Preferences::shared().setHistoryEnabled(false);
        store.append(QStringLiteral("secret"));
        store.waitForWrites();
        QCOMPARE(readBytes(path_), bytes);
        QCOMPARE(texts(store.entries()), QStringList{QStringLiteral("kept")});
        QCOMPARE(changed.count(), 0);
    }

    void badLinesAreSkipped()
    {
        const QByteArray bytes = "{\"ts\":\"1\",\"text\":\"first\"}\n"
                                 "\n"
                                 "just some words\n"
                                 "{\"ts\":\"2\",\"text\":42}\n"
                                 "{\"ts\":\"3\"}\n"
                                 "[\"ts\",\"text\"]\n"
                                 "{\"ts\":\"4\",\"text\":\"extra\",\"speaker\":\"ana\"}\n"
                                 "{\"ts\":\"5\",\"text\":\"bad\",\"n\":1}\n"
                                 "{\"ts\":\"6\",\"text\":\"cut off\n"
                                 "{\"text\":\"last\",\"ts\":\"7\"}";  // no final line feed
        writeBytes(path_, bytes);
        TranscriptStore store(path_);
        QCOMPARE(texts(store.entries()),
                 (QStringList{QStringLiteral("first"), QStringLiteral("extra"), QStringLiteral("last")}));
        QCOMPARE(store.entries().at(2).timestamp, QStringLiteral("7"));
    }

    void unreadableFileStartsEmptyAndIsReplacedByNextAppend()
    {
        writeBytes(path_, "{\"ts\":\"1\",\"text\":\"caf\xe9\"}\n");  // Latin-1, not UTF-8
        TranscriptStore store(path_);
        QVERIFY(store.entries().isEmpty());
        store.append(QStringLiteral("café ☕"));
        store.waitForWrites();
        QCOMPARE(texts(TranscriptStore(path_).entries()), QStringList{QStringLiteral("café ☕")});
    }

    void lineBreaksStayInsideOneRecordAndReadBackWithNewIds()
    {
        const QString text = QStringLiteral("first line\nsecond line\r\n\tthird \"quoted\" \\ line\n");
        QList<TranscriptEntry> written;
        {
            TranscriptStore store(path_);
            store.append(text);
            store.append(QStringLiteral("next"));
            written = store.entries();
        }  // the destructor waits for the writes
        QVERIFY(written.at(0).id != written.at(1).id);
        const QByteArray bytes = readBytes(path_);
        QCOMPARE(bytes.count('\n'), 2);
        bool ok = false;
        QCOMPARE(records(bytes, &ok).first().second, text);
        QVERIFY(ok);
        const QList<TranscriptEntry> again = TranscriptStore(path_).entries();
        QCOMPARE(texts(again), (QStringList{text, QStringLiteral("next")}));
        for (int i = 0; i < 2; ++i) {
            QVERIFY(!again.at(i).id.isNull() && again.at(i).id != written.at(i).id);
            QCOMPARE(again.at(i).timestamp, written.at(i).timestamp);
        }
    }

    void clearThenAppendEndsWithJustTheNewRecord()
    {
        TranscriptStore store(path_);
        for (int i = 0; i < 4; ++i)
            store.append(QString(5000, QLatin1Char('x')));  // big writes still queued behind each other
        QSignalSpy changed(&store, &TranscriptStore::entriesChanged);
        store.clear();
        QVERIFY(store.entries().isEmpty());
        store.append(QStringLiteral("after clear"));
        store.waitForWrites();
        QCOMPARE(changed.count(), 2);
        bool ok = false;
        const auto onDisk = records(readBytes(path_), &ok);
        QVERIFY(ok);
        QCOMPARE(onDisk.size(), 1);
        QCOMPARE(onDisk.first().second, QStringLiteral("after clear"));

        store.clear();
        store.waitForWrites();
        QVERIFY(QFile::exists(path_));
        QCOMPARE(readBytes(path_), QByteArray());
        QVERIFY(TranscriptStore(path_).entries().isEmpty());
    }

    void fileIsReplacedByRenameAndKeptWhenAWriteFails()
    {
        TranscriptStore store(path_);
        store.append(QStringLiteral("one"));
        store.waitForWrites();
        const ino_t first = inodeOf(path_);
        QVERIFY(first != 0);
        store.append(QStringLiteral("two"));
        store.waitForWrites();
        const ino_t second = inodeOf(path_);
        QVERIFY(second != first);  // a new file took its place; never rewritten in place

        const QByteArray before = readBytes(path_);
        {
            FileSizeLimit limit(4096);  // the disk "fills up" in the middle of the next write
            QVERIFY(limit.ok());
            store.append(QString(20000, QLatin1Char('z')));
            store.waitForWrites();
        }
        QCOMPARE(readBytes(path_), before);
        QCOMPARE(inodeOf(path_), second);
        QCOMPARE(QDir(QFileInfo(path_).absolutePath()).entryList(QDir::Files), QStringList{QStringLiteral("transcripts.jsonl")});
        QCOMPARE(store.entries().size(), 3);  // memory holds the new state all the same

        store.append(QStringLiteral("four"));
        store.waitForWrites();
        QCOMPARE(texts(TranscriptStore(path_).entries()).size(), 4);
    }

    void unwritableLocationLosesNothingInMemory()
    {
        // A regular file where the folder should be: nothing can be created there, not even by root.
        const QString blocker = dir_.filePath(QStringLiteral("case/blocked"));
        writeBytes(blocker, "not a folder");
        const QString path = blocker + QStringLiteral("/transcripts.jsonl");
        TranscriptStore store(path);
        QVERIFY(store.entries().isEmpty());
        store.append(QStringLiteral("still here"));
        store.clear();
        store.append(QStringLiteral("and here"));
        store.waitForWrites();
        QCOMPARE(texts(store.entries()), QStringList{QStringLiteral("and here")});
        QCOMPARE(readBytes(blocker), QByteArray("not a folder"));
    }

    void killedWriterNeverLeavesAPartialFile()
    {
        Preferences::shared().setHistoryRetention(100);
        QVERIFY(QFile::exists(QStringLiteral(TRANSCRIPT_WRITER)));
        int previous = 0;
        for (int round = 0; round < 6; ++round) {
            QProcess writer;
            writer.start(QStringLiteral(TRANSCRIPT_WRITER),
                         {path_, QStringLiteral("100000"), QStringLiteral("200000")});
            QVERIFY(writer.waitForStarted());
            // Wait for at least one more write, then kill at some moment inside the next ones.
            QVERIFY(QTest::qWaitFor([&] { return readBytes(path_).count('\n') > previous; }, 10000));
            QTest::qWait(static_cast<int>(QRandomGenerator::global()->bounded(5, 60)));
            writer.kill();
            QVERIFY(writer.waitForFinished());

            bool ok = false;
            const auto onDisk = records(readBytes(path_), &ok);
            QVERIFY2(ok, qPrintable(QStringLiteral("round %1: a partial file was left").arg(round)));
            QVERIFY(onDisk.size() > previous);
            previous = static_cast<int>(onDisk.size());
            if (previous >= 100)
                break;
        }
    }
};

QTEST_GUILESS_MAIN(TranscriptStoreTest)
#include "TranscriptStoreTest.moc"
