// The log, the settings and the history on disk: what a crash, a full disk or a damaged file must not cost.
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/TestSupport.h"

#include "HistoryRecord.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>
#include <QThread>

#include <csignal>
#include <sys/resource.h>
#include <thread>

namespace {
using TestSupport::readFile;
void writeBytes(const QString& path, const QByteArray& bytes) { QVERIFY(TestSupport::writeFile(path, bytes)); }

QStringList texts(const QList<TranscriptEntry>& entries)
{
    QStringList out;
    for (const TranscriptEntry& e : entries)
        out << e.text;
    return out;
}

// A history file's texts; "<broken>" for a line not one whole {"ts","text"} object or a missing final line feed.
QStringList onDisk(const QString& path)
{
    const QByteArray bytes = readFile(path);
    QStringList out;
    for (const QByteArray& line : bytes.isEmpty() ? QByteArrayList() : bytes.chopped(bytes.endsWith('\n') ? 1 : 0).split('\n')) {
        const QJsonObject o = QJsonDocument::fromJson(line).object();
        const bool whole = o.size() == 2 && o.value(QLatin1String("ts")).isString() && o.value(QLatin1String("text")).isString();
        out << (whole && bytes.endsWith('\n') ? o.value(QLatin1String("text")).toString() : QStringLiteral("<broken>"));
    }
    return out;
}

QString everySetting()
{
    const Preferences& p = Preferences::shared();
    using Diagnostics::boolText;
    return QStringList{boolText(p.historyEnabled()), CleanupModes::rawValue(p.cleanupMode()), boolText(p.showDockIcon()),
                       ActivationKeys::rawValue(p.activationKey()), p.localeIdentifier(), boolText(p.liveTyping()),
                       boolText(p.autoReturn()), boolText(p.value(Settings::llmAllowRemote)), p.value(Settings::llmEndpoint),
                       QString::number(p.historyRetention()), QString::number(p.value(Settings::speechRequestTimeoutMs)),
                       boolText(p.speechEngine() == SpeechEngineKind::server)}
        .join(QLatin1Char(' '));
}

QByteArray storeBytes() { return readFile(Preferences::shared().storePath()); }
}  // namespace

class StorageTest : public QObject {
    Q_OBJECT
    QString path_;  // each case's own history file

private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        QFile::remove(Preferences::autostartFilePath());
        path_ = qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + QStringLiteral("/case/transcripts.jsonl");
        QDir(QFileInfo(path_).absolutePath()).removeRecursively();
        QVERIFY(QDir().mkpath(QFileInfo(path_).absolutePath()));
    }

    // Runs first, so the first line must create the Tolvane folder. Lines of two threads stay whole and in order.
    void logLinesAreWholeAndInOrder()
    {
        const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Tolvane");
        QVERIFY(!QFileInfo::exists(dir));
        Diagnostics::log(QStringLiteral("x"), "/a/b.c/Name.tar.cpp", 3);  // source: file name without extension
        const int line = __LINE__ + 2;
        auto writer = [](QChar tag) {
            for (int i = 0; i < 2000; ++i) Diagnostics::log(QStringLiteral("thread %1 line %2 ").arg(tag).arg(i) + QString(60, tag));
        };
        std::thread a(writer, QLatin1Char('a'));
        writer(QLatin1Char('b'));
        a.join();
        Diagnostics::flush();
        const QStringList lines = QString::fromUtf8(readFile(dir + QStringLiteral("/diagnostic.log"))).split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 4002);  // the last one empty: every line ends with a line feed
        QVERIFY2(lines.first().endsWith(QStringLiteral("Z [Name.tar:3] x")), qPrintable(lines.first()));
        const QRegularExpression whole(QStringLiteral(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[StorageTest:%1\] )"
                                                      R"(thread ([ab]) line (\d+) (a{60}|b{60})$)").arg(line));
        int next[2] = {0, 0};
        for (const QString& l : lines.mid(1, 4000)) {
            const auto m = whole.match(l);
            QVERIFY2(m.hasMatch() && m.captured(3).at(0) == m.captured(1).at(0), qPrintable(l));
            QCOMPARE(m.captured(2).toInt(), next[m.captured(1) == QLatin1String("b")]++);
        }
    }

    // Numbers out of range read as the nearest bound; what is not a number is damage (below).
    void boundedSettingsClampOnRead()
    {
        for (const auto& [stored, retention, timeout] : {std::tuple{"0", 1, 1000}, {"9999999", 100, 600000}}) {
            writeBytes(Preferences::shared().storePath(),
                       QByteArray("[General]\nhistoryRetention=") + stored + "\nspeechRequestTimeoutMs=" + stored + "\n");
            QCOMPARE(Preferences::shared().historyRetention(), retention);
            QCOMPARE(Preferences::shared().value(Settings::speechRequestTimeoutMs), timeout);
        }
    }

    // Writes are clamped and stored at once, as the raw values other programs (and later versions) read.
    void writesAreStoredAtOnceAsRawValues()
    {
        Preferences& p = Preferences::shared();
        QSignalSpy locale(&p, &Preferences::localeChanged), key(&p, &Preferences::activationKeyChanged);
        p.setLocaleIdentifier(QStringLiteral("en-US"));  // already in effect on an empty store: no write
        QVERIFY(!storeBytes().contains("locale"));
        p.setLocaleIdentifier(QStringLiteral("de-DE"));
        p.setLocaleIdentifier(QStringLiteral("de-DE"));
        p.setActivationKey(ActivationKey::rightControl);
        p.setActivationKey(ActivationKey::rightControl);  // signals on every write all the same
        p.setHistoryRetention(101);
        p.setCleanupMode(CleanupMode::raw);
        p.setSpeechEngine(SpeechEngineKind::server);
        p.setValue(Settings::speechRequestTimeoutMs, 5);
        const QByteArray ini = storeBytes();
        QVERIFY2(ini.contains("locale=de-DE") && ini.contains("historyRetention=100") && ini.contains("cleanupMode=raw")
                     && ini.contains("activationKey=rightControl") && ini.contains("speechEngine=server")
                     && ini.contains("speechRequestTimeoutMs=1000"), ini.constData());
        QCOMPARE((QList<qsizetype>{locale.count(), key.count()}), (QList<qsizetype>{1, 2}));
    }

    // A damaged store reads exactly as an empty one and stays byte for byte as it was.
    void damagedSettingsReadAsDefaultsAndAreNotRewritten()
    {
        const QString defaults = everySetting();
        const QByteArray garbage = "[General]\nhistoryEnabled=perhaps\nshowDockIcon=7\ncleanupMode=Tidy\nactivationKey=leftAlt\n"
                                   "liveTyping=yes\nlocale=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x5)\nautoReturn=1\nllmAllowRemote=1\n"
                                   "llmEndpoint=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x5)\nhistoryRetention=many\n"
                                   "speechRequestTimeoutMs=soon\nspeechEngine=Server\n";
        writeBytes(Preferences::shared().storePath(), garbage);
        QCOMPARE(everySetting(), defaults);  // raw values match exactly, case included
        QCOMPARE(storeBytes(), garbage);
    }

    // Failing to write the entry is the Settings window's case (tests/ui); here: what the entry's state reads as.
    void startAtLoginIsTheAutostartEntry()
    {
        Preferences& p = Preferences::shared();
        p.setStartAtLogin(true);
        QVERIFY(p.startAtLogin());
        p.setStartAtLogin(false);
        QVERIFY(!QFile::exists(Preferences::autostartFilePath()) && !p.startAtLogin());
        writeBytes(Preferences::autostartFilePath(), "[Desktop Entry]\nHidden=true\n");  // switched off by the desktop without deleting it
        QVERIFY(!p.startAtLogin());
    }

    // A longer file loads whole, the next append trims it; a restart reads back what was written; off changes nothing.
    void historyKeepsTheNewestWithTimesAndText()
    {
        Preferences::shared().setHistoryRetention(3);
        writeBytes(path_, R"({"ts":"x","text":"old1"})" "\n" R"({"ts":"x","text":"old2"})" "\n" R"({"ts":"x","text":"old3"})" "\n"
                          R"({"ts":"x","text":"old4"})" "\n");
        const QString text = QStringLiteral("line\nbreak\r\n\t\"quoted\" \\ café ☕");
        const QDateTime before = QDateTime::currentDateTimeUtc().addMSecs(-1);
        TranscriptStore store(path_);
        QCOMPARE(store.entries().size(), 4);
        QSignalSpy changed(&store, &TranscriptStore::entriesChanged);
        store.append(QStringLiteral("new"));
        store.append(text);
        store.waitForWrites();
        QCOMPARE(onDisk(path_), (QStringList{QStringLiteral("old4"), QStringLiteral("new"), text}));
        const QList<TranscriptEntry> written = store.entries(), again = TranscriptStore(path_).entries();
        QCOMPARE(texts(again), texts(written));
        for (int i = 1; i < 3; ++i) {
            const QString& ts = again.at(i).timestamp;
            const QDateTime stamp = QDateTime::fromString(ts, Qt::ISODateWithMs);
            QVERIFY2(ts == written.at(i).timestamp && ts.endsWith(QLatin1Char('Z')) && stamp >= before && stamp <= QDateTime::currentDateTimeUtc(),
                     qPrintable(ts));
            QVERIFY(again.at(i).id != written.at(i).id && written.at(i).id != written.at(i - 1).id);  // ids are per process
        }
        const QByteArray bytes = readFile(path_);
        Preferences::shared().setHistoryEnabled(false);
        store.append(QStringLiteral("secret"));
        store.waitForWrites();
        QCOMPARE(readFile(path_), bytes);
        QCOMPARE(texts(store.entries()), texts(written));
        QCOMPARE(changed.count(), 2);
    }

    // Damaged lines are skipped; a file that is not UTF-8 at all is not ours and starts afresh. Either
    // way the log says so and names a copy of the file as it was, which the next append leaves alone.
    void damagedHistoryKeepsWhatIsReadable_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QStringList>("read");
        QTest::newRow("bad lines") << QByteArray("{\"ts\":\"1\",\"text\":\"first\"}\n\njust words\n{\"ts\":\"2\",\"text\":42}\n{\"ts\":\"3\"}\n"
                                                 "[\"ts\",\"text\"]\n{\"ts\":\"4\",\"text\":\"extra\",\"speaker\":\"ana\"}\n"
                                                 "{\"ts\":\"5\",\"text\":\"bad\",\"n\":1}\n{\"ts\":\"6\",\"text\":\"cut off\n"
                                                 "{\"text\":\"last\",\"ts\":\"7\"}")  // no final line feed
                                   << QStringList{QStringLiteral("first"), QStringLiteral("extra"), QStringLiteral("last")};
        QTest::newRow("Latin-1") << QByteArray("{\"ts\":\"1\",\"text\":\"caf\xe9\"}\n") << QStringList();
    }
    void damagedHistoryKeepsWhatIsReadable()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QStringList, read);
        writeBytes(path_, bytes);
        const TestSupport::LogMark mark;
        TranscriptStore store(path_);
        QCOMPARE(texts(store.entries()), read);
        QCOMPARE(readFile(path_), bytes);  // reading never rewrites it
        store.append(QStringLiteral("new"));
        store.waitForWrites();
        const QString said = mark.messages().filter(QStringLiteral("history: ")).value(0);
        QVERIFY2(said.contains(QStringLiteral(" in ") + path_ + QStringLiteral("; the file as it was is kept in ")), qPrintable(said));
        QCOMPARE(readFile(said.section(QStringLiteral("kept in "), 1)), bytes);
    }

    // The file is only ever replaced whole: a write that fails half-way (disk full) leaves the previous one.
    void failedWritesKeepThePreviousFile()
    {
        TranscriptStore store(path_);
        for (int i = 0; i < 3; ++i)
            store.append(QString(5000, QLatin1Char('x')));  // big writes still queued behind each other
        store.clear();
        store.append(QStringLiteral("one"));
        store.waitForWrites();
        QCOMPARE(onDisk(path_), QStringList{QStringLiteral("one")});  // clear kept its place in the queue
        rlimit saved{};
        ::getrlimit(RLIMIT_FSIZE, &saved);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, saved.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        store.append(QString(20000, QLatin1Char('z')));
        store.waitForWrites();
        ::setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, oldHandler);
        QCOMPARE(onDisk(path_), QStringList{QStringLiteral("one")});
        QCOMPARE(QDir(QFileInfo(path_).absolutePath()).entryList(QDir::Files), QStringList{QStringLiteral("transcripts.jsonl")});
        QCOMPARE(store.entries().size(), 2);
        // A regular file where the folder should be: nothing can be written there, not even by root.
        TranscriptStore blocked(path_ + QStringLiteral("/transcripts.jsonl"));
        blocked.append(QStringLiteral("still here"));
        blocked.waitForWrites();
        QCOMPARE(texts(blocked.entries()), QStringList{QStringLiteral("still here")});
        QCOMPARE(onDisk(path_), QStringList{QStringLiteral("one")});
        store.clear();
        store.waitForWrites();
        QVERIFY(QFile::exists(path_) && readFile(path_).isEmpty() && store.entries().isEmpty());
    }

    // SIGKILL at random moments while the program's store rewrites the history again and again:
    // after every kill the file is one whole state the writer made (the newest records, numbered
    // without a gap, each whole); the killed write's temporary file goes at the next start.
    void killedWriterLeavesAWholeFile()
    {
        path_ = TranscriptStore::fileURL();
        constexpr int retention = 20;
        Preferences::shared().setHistoryRetention(retention);
        const auto folder = [&] {
            return QDir(QFileInfo(path_).absolutePath()).entryList({QStringLiteral("transcripts.jsonl*")}, QDir::Files | QDir::Hidden);
        };
        int last = -1;
        for (int round = 0; round < 200; ++round) {
            QProcess writer;
            writer.start(QStringLiteral(TOLVANE_HISTORY_WRITER), {});
            QVERIFY(writer.waitForReadyRead(10000));
            QThread::usleep(QRandomGenerator::global()->bounded(20000));
            writer.kill();
            QVERIFY(writer.waitForFinished(10000));
            const QString where = QStringLiteral("after kill %1").arg(round + 1);
            const QByteArray bytes = readFile(path_);
            QVERIFY2(bytes.isEmpty() || bytes.endsWith('\n'), qPrintable(where));
            QList<int> numbers;
            for (const QString& text : onDisk(path_))
                numbers << HistoryRecord::number(text);
            QVERIFY2(numbers.isEmpty() || numbers.size() == std::min(numbers.last() + 1, retention), qPrintable(where));
            for (qsizetype i = 0; i < numbers.size(); ++i)
                QVERIFY2(numbers[i] >= 0 && numbers[i] == numbers.last() - numbers.size() + 1 + i, qPrintable(where));
            QVERIFY2(numbers.value(numbers.size() - 1, -1) >= last, qPrintable(where));  // never an older state
            last = numbers.value(numbers.size() - 1, -1);
            // The killed write's temporary file, if any, is removed by the next store on the file.
            QVERIFY2(folder().size() <= 2, qPrintable(folder().join(QLatin1Char(' '))));
        }
        QVERIFY2(last >= 20, "the writer hardly wrote: the kills did not land among writes");
        QProcess opened;
        opened.start(QStringLiteral(TOLVANE_HISTORY_WRITER), {QStringLiteral("--open")});
        QVERIFY(opened.waitForFinished(10000));
        QCOMPARE(opened.readAllStandardOutput(), QByteArray::number(retention) + '\n');
        QCOMPARE(folder(), QStringList{QStringLiteral("transcripts.jsonl")});
    }
};

QTEST_GUILESS_MAIN(StorageTest)
#include "StorageTest.moc"
