#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/ModelInventory.h"
#include "speech/TranscriberController.h"
#include "storage/DataLocation.h"
#include "storage/Preferences.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

using TestSupport::await;

namespace {

// A small HTTP server on 127.0.0.1: /<name> answers the registered body; a body registered as cut
// announces its whole length but sends only half before closing the connection.
class ArchiveServer : public QObject {
public:
    ArchiveServer()
    {
        server_.listen(QHostAddress::LocalHost);
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }
    QString url(const QString& name) const
    {
        return QStringLiteral("http://127.0.0.1:%1/%2").arg(server_.serverPort()).arg(name);
    }
    void serve(const QString& name, const QByteArray& body, bool cut = false) { bodies_[name] = {body, cut}; }

private:
    void answer(QTcpSocket* socket)
    {
        const QByteArray request = socket->peek(socket->bytesAvailable());
        if (!request.contains("\r\n\r\n"))
            return;
        socket->readAll();
        const QString path = QString::fromLatin1(request.split(' ').value(1)).mid(1);
        const auto& [body, cut] = bodies_[path];
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/x-tar\r\nConnection: close\r\nContent-Length: "
                      + QByteArray::number(body.size()) + "\r\n\r\n");
        socket->write(cut ? body.left(body.size() / 2) : body);
        socket->disconnectFromHost();
    }

    QTcpServer server_;
    QHash<QString, QPair<QByteArray, bool>> bodies_;
};

QByteArray sha256(const QByteArray& data) { return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex(); }

// A tar archive of `folder`'s content (inside a top folder `top` when given), made with tar.
QByteArray tarOf(const QString& folder, const QString& top = QString())
{
    QTemporaryDir out;
    const QString archive = out.filePath(QStringLiteral("a.tar"));
    QStringList args{QStringLiteral("-chf"), archive};
    if (top.isEmpty())
        args << QStringLiteral("-C") << folder << QStringLiteral(".");
    else
        args << QStringLiteral("--transform") << QStringLiteral("s,^\\.,") + top + QLatin1Char(',') << QStringLiteral("-C") << folder
             << QStringLiteral(".");
    if (QProcess::execute(QStringLiteral("tar"), args) != 0)
        return {};
    QFile f(archive);
    f.open(QIODevice::ReadOnly);
    return f.readAll();
}

// The Debian model's files, as a model archive would hold them.
QString debianModel() { return QStringLiteral("/usr/share/pocketsphinx/model/en-us"); }

void setCatalog(const QList<ModelSource>& sources)
{
    QJsonArray array;
    for (const ModelSource& s : sources)
        array.append(QJsonObject{{QStringLiteral("locale"), s.locale}, {QStringLiteral("url"), s.url}, {QStringLiteral("sha256"), s.sha256}});
    Preferences::shared().setValue(Settings::speechModelCatalog,
                                   QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact)));
}

QString modelsFolder() { return tolvaneDataDirectory() + QStringLiteral("/models"); }

// Everything in the models folder, hidden entries included.
QStringList modelsFolderEntries()
{
    return QDir(modelsFolder()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

QString installError(ModelInventory& models, const ModelSource& source)
{
    try {
        await(models.downloadAndInstall(source));
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return QString();
}

}  // namespace

class ModelInventoryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void installsFromLoopbackForTheTranscriber();
    void failedInstallsLeaveNothingBehind_data();
    void failedInstallsLeaveNothingBehind();
    void interruptedInstallLeftoversAreIgnoredThenCleared();

private:
    ArchiveServer server_;
    QByteArray modelArchive_;
};

void ModelInventoryTest::initTestCase()
{
    QVERIFY2(QFileInfo::exists(debianModel()), "pocketsphinx-en-us is needed");
    modelArchive_ = tarOf(debianModel(), QStringLiteral("en-gb-model"));
    QVERIFY(!modelArchive_.isEmpty());
    server_.serve(QStringLiteral("model.tar"), modelArchive_);
}

void ModelInventoryTest::cleanup()
{
    QDir(modelsFolder()).removeRecursively();
    Preferences::shared().setValue(Settings::speechModelCatalog, QString());
}

void ModelInventoryTest::installsFromLoopbackForTheTranscriber()
{
    setCatalog({{QStringLiteral("en-GB"), server_.url(QStringLiteral("model.tar")), QString::fromLatin1(sha256(modelArchive_))}});
    ModelInventory models;
    QCOMPARE(await(models.status(QStringLiteral("en-gb"))), ModelStatus::supported);

    TranscriberController controller;
    TestSupport::LogMark mark;
    await(controller.prepare(QStringLiteral("en-gb")));
    QCOMPARE(controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-gb")));
    QVERIFY(mark.messages().contains(QStringLiteral("transcriber: model archive for en-GB verified; unpacking")));

    // Only the whole model is left, under its language's name.
    QCOMPARE(modelsFolderEntries(), QStringList{QStringLiteral("en-GB")});
    QCOMPARE(await(models.status(QStringLiteral("EN-GB"))), ModelStatus::installed);
    QVERIFY(!await(models.installationRequest(QStringLiteral("en-GB"))));

    // A second preparation finds it installed and downloads nothing.
    TestSupport::LogMark again;
    await(controller.prepare(QStringLiteral("en-GB")));
    QVERIFY(!again.messages().contains(QStringLiteral("transcriber: model install complete.")));
}

void ModelInventoryTest::failedInstallsLeaveNothingBehind_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("cut");
    QTest::addColumn<bool>("rightChecksum");
    QTest::addColumn<QString>("error");

    QTemporaryDir notAModel;
    QFile readme(notAModel.filePath(QStringLiteral("README")));
    readme.open(QIODevice::WriteOnly);
    readme.write("no model here\n");
    readme.close();

    QTest::newRow("checksum mismatch") << "bad-sum.tar" << modelArchive_ << false << false
                                       << QStringLiteral("The speech model archive for en-GB is damaged or incomplete (its SHA-256 "
                                                         "does not match the catalogue).");
    QTest::newRow("interrupted download") << "cut.tar" << modelArchive_ << true << true
                                          << QStringLiteral("Could not download the speech model for en-GB: ");
    QTest::newRow("not an archive") << "garbage.tar" << QByteArray(4096, 'x') << false << true
                                    << QStringLiteral("The speech model archive for en-GB could not be unpacked: ");
    QTest::newRow("archive without a model")
        << "empty.tar" << tarOf(notAModel.path()) << false << true
        << QStringLiteral("The speech model archive for en-GB holds no pocketsphinx model (an acoustic model folder, a "
                          "language model and a dictionary).");
}

void ModelInventoryTest::failedInstallsLeaveNothingBehind()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, body);
    QFETCH(bool, cut);
    QFETCH(bool, rightChecksum);
    QFETCH(QString, error);

    server_.serve(path, body, cut);
    const QString sum = rightChecksum ? QString::fromLatin1(sha256(body)) : QString(64, QLatin1Char('0'));
    ModelInventory models;
    const QString message = installError(models, {QStringLiteral("en-GB"), server_.url(path), sum});
    QVERIFY2(message.startsWith(error), qPrintable(message));
    QCOMPARE(modelsFolderEntries(), QStringList());
    QCOMPARE(await(models.status(QStringLiteral("en-GB"))), ModelStatus::unsupported);
}

void ModelInventoryTest::interruptedInstallLeftoversAreIgnoredThenCleared()
{
    // What a killed install leaves: a hidden partial folder holding a complete-looking model.
    const QString partial = modelsFolder() + QStringLiteral("/.partial-en-gb-abc123/model");
    QVERIFY(QDir().mkpath(partial));
    QVERIFY(QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-rL"), debianModel() + QStringLiteral("/."), partial}) == 0);
    ModelInventory models;
    QCOMPARE(await(models.status(QStringLiteral("en-GB"))), ModelStatus::unsupported);
    QVERIFY(!models.installedLocales().contains(QStringLiteral("en-GB")));

    // Installing again, here from a local archive, leaves only the whole model.
    QTemporaryDir dir;
    QFile archive(dir.filePath(QStringLiteral("model.tar")));
    QVERIFY(archive.open(QIODevice::WriteOnly) && archive.write(modelArchive_) == modelArchive_.size());
    archive.close();
    QCOMPARE(installError(models, {QStringLiteral("en-GB"), archive.fileName(), QString::fromLatin1(sha256(modelArchive_))}), QString());
    QCOMPARE(modelsFolderEntries(), QStringList{QStringLiteral("en-GB")});
    QCOMPARE(await(models.status(QStringLiteral("en-gb"))), ModelStatus::installed);
}

QTEST_GUILESS_MAIN(ModelInventoryTest)
#include "ModelInventoryTest.moc"
