// Model archives as they may arrive: unpacked only when every entry is a plain file or folder that
// stays inside the target folder and within the size limits; installed whole over http or from a
// file, or not at all; and a refused or damaged archive leaves the model installed before it working.

#include "support/LoopbackHttpServer.h"
#include "support/TestSupport.h"

#include "core/Collaborators.h"
#include "speech/ModelArchive.h"
#include "speech/ModelInventory.h"
#include "speech/SpeechEngine.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QTest>

#include <unistd.h>

namespace {

// The work folder: a model of empty files, a file beside it for links to point at, and the
// kinds of archive the rows ask for, made by tar as a publisher would.
const QString& work()
{
    static const QString path = QDir::tempPath() + QStringLiteral("/archives");
    return path;
}

QByteArray tar(const QStringList& arguments, const QString& in = work())
{
    QProcess p;
    p.setWorkingDirectory(in);
    p.start(QStringLiteral("tar"), QStringList{"-cf", "-"} + arguments);
    return p.waitForFinished() && p.exitCode() == 0 ? p.readAllStandardOutput() : QByteArray();
}

bool makeModel(const QString& name)
{
    const QString root = work() + '/' + name;
    if (!QDir().mkpath(root + "/acoustic"))
        return false;
    for (const char* file : {"acoustic/mdef", "acoustic/means", "acoustic/variances", "acoustic/transition_matrices",
                             "en-us.lm.bin", "en-us.dict"}) {
        QFile f(root + '/' + file);
        if (!f.open(QIODevice::WriteOnly) || f.write(QByteArray(1500, 'm')) != 1500)
            return false;
    }
    return true;
}

QStringList everythingIn(const QString& folder)
{
    QStringList found;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext())
        found << QDir(folder).relativeFilePath(it.next());
    found.sort();
    return found;
}

using TestSupport::thrown;

// The archive file in the temporary folder, and its SHA-256 (or a wrong one).
QString fileOf(const QByteArray& bytes)
{
    const QString file = QDir::tempPath() + "/model-archive";
    return TestSupport::writeFile(file, bytes) ? file : QString();
}
QString sha256(const QByteArray& bytes, bool right = true)
{
    return right ? QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()) : QString(64, '0');
}

// Answers every request with `archive`; a cut download announces the whole length but sends only half.
class ArchiveServer final : public LoopbackHttpServer {
public:
    QByteArray archive;
    bool cut = false;

protected:
    std::optional<Response> route(const Request&) override
    {
        if (!cut)
            return Response{200, archive};
        return Response{200, archive.left(archive.size() / 2), 0, [] { return QByteArray(); }, 0, archive.size()};
    }
};

}  // namespace

class ModelArchiveTest : public QObject {
    Q_OBJECT
    QMap<QString, QByteArray> archives_;
    ArchiveServer server_;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(makeModel("en-us") && QDir().mkpath(work() + "/in/b/c"));
        QVERIFY(QFile(work() + "/outside").open(QIODevice::WriteOnly));
        QVERIFY(QFile::link("/etc/passwd", work() + "/en-us/passwd"));
        QVERIFY(::link(QFile::encodeName(work() + "/outside").constData(), QFile::encodeName(work() + "/en-us/hard").constData()) == 0);
        const QStringList model{"--exclude=passwd", "--exclude=hard", "en-us"};
        archives_["tar"] = tar(model);
        archives_["tar.gz"] = tar(QStringList{"-z"} + model);
        archives_["tar.xz"] = tar(QStringList{"-J"} + model);
        archives_["dot"] = tar({"--exclude=passwd", "--exclude=hard", "."}, work() + "/en-us");
        archives_["parent"] = tar({"-P", "../../../outside"}, work() + "/in/b/c");
        archives_["absolute"] = tar({"-P", work() + "/outside"});
        archives_["symlink"] = tar({"en-us/passwd"});
        archives_["hard link"] = tar({"outside", "en-us/hard"});
        archives_["no model"] = tar({"outside"});
        for (const QByteArray& a : std::as_const(archives_))
            QVERIFY(!a.isEmpty());
        archives_["truncated"] = archives_["tar.gz"].left(archives_["tar.gz"].size() / 2);
        archives_["not an archive"] = QByteArray(4096, 'x');
        // Archived empty: an entry that reaches it from anywhere empties it again.
        QFile outside(work() + "/outside");
        QVERIFY(outside.open(QIODevice::WriteOnly) && outside.write("untouched") == 9);
        QVERIFY(server_.listen());
    }

    void keepsEntriesInsideTheFolder_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("relative");  // null: refused
        QTest::newRow("plain") << "en-us/acoustic/mdef" << "en-us/acoustic/mdef";
        QTest::newRow("dots and slashes") << "./en-us//acoustic/./mdef" << "en-us/acoustic/mdef";
        QTest::newRow("the folder itself") << "./" << "";
        QTest::newRow("dots in a name") << "a..b/..c" << "a..b/..c";
        QTest::newRow("parent") << "../escaped" << QString();
        QTest::newRow("parent inside") << "en-us/../../escaped" << QString();
        QTest::newRow("absolute") << "/etc/passwd" << QString();
        QTest::newRow("empty") << "" << QString();
    }
    void keepsEntriesInsideTheFolder()
    {
        QFETCH(QString, name);
        QFETCH(QString, relative);
        QCOMPARE(ModelArchive::safeRelativePath(name), relative.isNull() ? std::nullopt : std::optional(relative));
    }

    void unpacksModelsAndRefusesEverythingElse_data()
    {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<QString>("refusal");  // part of it; empty: unpacked
        const qint64 plenty = 1 << 20;
        QTest::newRow("tar") << "tar" << plenty << QString();
        QTest::newRow("gzip") << "tar.gz" << plenty << QString();
        QTest::newRow("xz") << "tar.xz" << plenty << QString();
        QTest::newRow("entries under ./") << "dot" << plenty << QString();
        QTest::newRow("../") << "parent" << plenty << "\"../../../outside\" would be written outside the model folder";
        QTest::newRow("absolute path") << "absolute" << plenty << "would be written outside the model folder";
        QTest::newRow("symlink out") << "symlink" << plenty << "\"en-us/passwd\" is a symbolic link (to \"/etc/passwd\")";
        QTest::newRow("hard link") << "hard link" << plenty << "\"en-us/hard\" is a hard link (to \"outside\")";
        QTest::newRow("too large") << "tar.xz" << qint64(4000) << "its files hold more than 4000 bytes";
        QTest::newRow("truncated") << "truncated" << plenty << "truncated gzip input";
        QTest::newRow("not an archive") << "not an archive" << plenty << "Unrecognized archive format";
    }
    void unpacksModelsAndRefusesEverythingElse()
    {
        QFETCH(QString, archive);
        QFETCH(qint64, maxBytes);
        QFETCH(QString, refusal);
        // Two folders above the target: an entry that climbs out shows up in them.
        const QString outer = QDir::tempPath() + "/unpack", target = outer + "/a/b/target";
        QDir(outer).removeRecursively();
        QVERIFY(QDir().mkpath(target));
        const QString error = ModelArchive::unpackData(archives_.value(archive), target, {maxBytes, 100});
        if (refusal.isEmpty()) {
            QVERIFY2(error.isEmpty(), qPrintable(error));
            const QString root = archive == "dot" ? target : target + "/en-us";
            QStringList expected = everythingIn(work() + "/en-us");
            expected.removeAll("passwd");
            expected.removeAll("hard");
            QCOMPARE(everythingIn(root), expected);
        } else {
            QVERIFY2(error.contains(refusal), qPrintable(error));
        }
        QCOMPARE(QDir(outer).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList{"a"});
        QCOMPARE(QDir(outer + "/a").entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList{"b"});
        QCOMPARE(QDir(outer + "/a/b").entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList{"target"});
        for (const QString& path : everythingIn(target))
            QVERIFY2(!QFileInfo(target + '/' + path).isSymLink(), qPrintable(path));
        QFile outside(work() + "/outside");
        QVERIFY(outside.open(QIODevice::ReadOnly) && outside.readAll() == "untouched");
    }

    void installsWholeOrNotAtAll_data()
    {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<QString>("via");    // http, a cut http download or a file
        QTest::addColumn<QString>("error");  // part of it; none: installed
        QTest::newRow("from loopback") << "tar" << "http" << QString();
        QTest::newRow("from a file, over a killed install's leftovers") << "tar.xz" << "file" << QString();
        QTest::newRow("interrupted download") << "tar" << "cut" << "Could not download the speech model for en-GB: ";
        QTest::newRow("no model inside") << "no model" << "http" << "archive for en-GB holds no pocketsphinx model";
    }
    void installsWholeOrNotAtAll()
    {
        QFETCH(QString, archive);
        QFETCH(QString, via);
        QFETCH(QString, error);
        const QString models = QDir::tempPath() + "/fresh-models";
        QDir(models).removeRecursively();
        ModelInventory inventory({models, QDir::tempPath() + "/no-system-models"});
        if (via == "file") {
            // What a killed install leaves: a hidden partial folder holding a complete-looking model, not taken for one.
            const QString leftover = models + "/.partial-en-gb-abc123/en-GB";
            QVERIFY(QDir().mkpath(leftover) && QProcess::execute("cp", {"-r", work() + "/en-us/.", leftover}) == 0);
            QVERIFY(!inventory.installedLocales().contains("en-GB"));
        }
        server_.archive = archives_.value(archive);
        server_.cut = via == "cut";
        const QString url = via == "file" ? fileOf(server_.archive) : server_.url("/model.tar");
        const QString message = thrown(inventory.downloadAndInstall({"en-GB", url, sha256(server_.archive)}));
        QVERIFY2(error.isEmpty() ? message.isEmpty() : message.contains(error), qPrintable(message));
        // The model appears under its language's name, or nothing is left at all.
        const QStringList left = QDir(models).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        QCOMPARE(left, error.isEmpty() ? QStringList{"en-GB"} : QStringList());
        QCOMPARE(TestSupport::await(inventory.status("en-gb")), error.isEmpty() ? ModelStatus::installed : ModelStatus::unsupported);
        if (!error.isEmpty())
            QCOMPARE(thrown(inventory.loadEngine("en-GB")), QStringLiteral("No speech model is installed for en-GB."));
    }

    // Every kind of refusal is the unpacking's case above; here each way an install can fail.
    void aRefusedArchiveLeavesTheInstalledModelWorking_data()
    {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<bool>("rightSum");
        QTest::addColumn<QString>("logged");
        QTest::newRow("SHA-256 mismatch") << "tar.gz" << false << "transcriber: model archive for en-US has SHA-256 ";
        QTest::newRow("truncated") << "truncated" << true << "transcriber: model archive for en-US refused: ";
        QTest::newRow("../") << "parent" << true << "transcriber: model archive for en-US refused: the entry \"../../../outside\" would be written outside";
    }
    void aRefusedArchiveLeavesTheInstalledModelWorking()
    {
        QFETCH(QString, archive);
        QFETCH(bool, rightSum);
        QFETCH(QString, logged);
        // The system's model stands for one installed earlier by Tolvane.
        const QString models = QDir::tempPath() + "/models", installed = models + "/en-US";
        if (!QFileInfo::exists(installed))
            QVERIFY(QDir().mkpath(models) && QProcess::execute("cp", {"-r", "/usr/share/pocketsphinx/model/en-us", installed}) == 0);
        const QStringList before = everythingIn(models);
        ModelInventory inventory({models, QDir::tempPath() + "/no-system-models"});
        QCOMPARE(inventory.installedModelFolder("en-US"), installed);

        const QByteArray bytes = archives_.value(archive);
        TestSupport::LogMark mark;
        const QString error = thrown(inventory.downloadAndInstall({"en-US", fileOf(bytes), sha256(bytes, rightSum)}));
        QVERIFY2(error.startsWith("The speech model archive for en-US "), qPrintable(error));
        QVERIFY2(mark.messages().filter(logged).size() == 1, qPrintable(mark.messages().join('\n')));

        QCOMPARE(everythingIn(models), before);
        QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/outside"));
        QCOMPARE(inventory.installedModelFolder("en-US"), installed);
        QVERIFY(TestSupport::await(inventory.loadEngine("en-US")) != nullptr);
    }
};

QTEST_GUILESS_MAIN(ModelArchiveTest)
#include "ModelArchiveTest.moc"
