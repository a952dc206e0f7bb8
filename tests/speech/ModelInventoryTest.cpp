#include "SpeechTestSupport.h"

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

using SpeechTest::await;

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
        if (!bodies_.contains(path)) {
            socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            socket->disconnectFromHost();
            return;
        }
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
    void installsFromALocalFile();
    void catalogueAndStatus();

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

    const QStringList lines = mark.messages();
    QVERIFY(lines.contains(QStringLiteral("transcriber: AssetInventory status = supported")));
    QVERIFY(lines.contains(QStringLiteral("transcriber: requesting model installation for en-gb…")));
    QVERIFY(lines.contains(QStringLiteral("transcriber: model install complete.")));
    QVERIFY(lines.contains(QStringLiteral("transcriber: downloading model for en-GB from ") + server_.url(QStringLiteral("model.tar"))));
    QVERIFY(lines.contains(QStringLiteral("transcriber: model archive for en-GB verified; unpacking")));
    QVERIFY(lines.contains(QStringLiteral("transcriber: downloaded model for en-GB: %1 MB")
                               .arg(QString::number(static_cast<double>(modelArchive_.size()) / 1e6, 'f', 1))));

    // Only the whole model is left, under its language's name.
    QCOMPARE(modelsFolderEntries(), QStringList{QStringLiteral("en-GB")});
    QCOMPARE(await(models.status(QStringLiteral("EN-GB"))), ModelStatus::installed);
    QVERIFY(!await(models.installationRequest(QStringLiteral("en-GB"))));
    QVERIFY(await(models.supportedLocales()).contains(QStringLiteral("en-GB")));

    // A second preparation finds it installed and downloads nothing.
    TestSupport::LogMark again;
    await(controller.prepare(QStringLiteral("en-GB")));
    QVERIFY(again.messages().contains(QStringLiteral("transcriber: AssetInventory status = installed")));
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
    const QByteArray notAModelTar = tarOf(notAModel.path());

    QTest::newRow("checksum mismatch") << "bad-sum.tar" << modelArchive_ << false << false
                                       << QStringLiteral("The speech model archive for en-GB is damaged or incomplete (its SHA-256 "
                                                         "does not match the catalogue).");
    QTest::newRow("interrupted download") << "cut.tar" << modelArchive_ << true << true
                                          << QStringLiteral("Could not download the speech model for en-GB: ");
    QTest::newRow("not found") << "missing.tar" << QByteArray() << false << true
                               << QStringLiteral("Could not download the speech model for en-GB: ");
    QTest::newRow("not an archive") << "garbage.tar" << QByteArray(4096, 'x') << false << true
                                    << QStringLiteral("The speech model archive for en-GB could not be unpacked: ");
    QTest::newRow("archive without a model")
        << "empty.tar" << notAModelTar << false << true
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

    if (path != QLatin1String("missing.tar"))
        server_.serve(path, body, cut);
    const QString sum = rightChecksum ? QString::fromLatin1(sha256(body)) : QString(64, QLatin1Char('0'));
    ModelInventory models;
    const QString message = installError(models, {QStringLiteral("en-GB"), server_.url(path), sum});
    QVERIFY2(message.startsWith(error), qPrintable(message));
    QCOMPARE(modelsFolderEntries(), QStringList());
    QCOMPARE(await(models.status(QStringLiteral("en-GB"))), ModelStatus::unsupported);

    // Through the transcriber: the error comes out of prepare() and the previous language stays.
    setCatalog({{QStringLiteral("en-GB"), server_.url(path), sum}});
    TranscriberController controller;
    await(controller.prepare(QStringLiteral("en-US")));
    try {
        await(controller.prepare(QStringLiteral("en-GB")));
        QFAIL("a failed install prepared the language");
    } catch (const CollaboratorError& e) {
        QVERIFY2(e.localizedDescription().startsWith(error), qPrintable(e.localizedDescription()));
    }
    QCOMPARE(controller.preparedLocale(), std::optional<QString>(QStringLiteral("en-US")));
    QCOMPARE(modelsFolderEntries(), QStringList());
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

    const QString error = installError(
        models, {QStringLiteral("en-GB"), server_.url(QStringLiteral("model.tar")), QString::fromLatin1(sha256(modelArchive_))});
    QCOMPARE(error, QString());
    QCOMPARE(modelsFolderEntries(), QStringList{QStringLiteral("en-GB")});
}

void ModelInventoryTest::installsFromALocalFile()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("model.tar"));
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(modelArchive_);
    f.close();
    ModelInventory models;
    QCOMPARE(installError(models, {QStringLiteral("de-DE"), path, QString::fromLatin1(sha256(modelArchive_))}), QString());
    QCOMPARE(await(models.status(QStringLiteral("de-de"))), ModelStatus::installed);
    QVERIFY(installError(models, {QStringLiteral("fr-FR"), dir.filePath(QStringLiteral("absent.tar")), QString(64, QLatin1Char('0'))})
                .startsWith(QStringLiteral("Could not read the speech model archive ")));
    QCOMPARE(modelsFolderEntries(), QStringList{QStringLiteral("de-DE")});
}

void ModelInventoryTest::catalogueAndStatus()
{
    ModelInventory models;
    // The Debian model is found as en-US.
    QCOMPARE(await(models.status(QStringLiteral("en-us"))), ModelStatus::installed);
    QCOMPARE(await(models.supportedLocales()), QStringList{QStringLiteral("en-US")});

    setCatalog({{QStringLiteral("fr-FR"), QStringLiteral("http://127.0.0.1:1/fr.tar"), QString(64, QLatin1Char('a'))},
                {QStringLiteral("en-US"), QStringLiteral("http://127.0.0.1:1/en.tar"), QString(64, QLatin1Char('b'))},
                {QStringLiteral("xx"), QStringLiteral("http://127.0.0.1:1/x.tar"), QStringLiteral("short")}});
    QCOMPARE(await(models.supportedLocales()), QStringList({QStringLiteral("en-US"), QStringLiteral("fr-FR")}));
    QCOMPARE(await(models.status(QStringLiteral("fr-fr"))), ModelStatus::supported);
    QCOMPARE(await(models.status(QStringLiteral("xx"))), ModelStatus::unsupported);
    // Installed models need no installation, whatever the catalogue says.
    QVERIFY(!await(models.installationRequest(QStringLiteral("en-US"))));
    QCOMPARE(await(models.installationRequest(QStringLiteral("FR-fr")))->url, QStringLiteral("http://127.0.0.1:1/fr.tar"));

    TestSupport::LogMark mark;
    Preferences::shared().setValue(Settings::speechModelCatalog, QStringLiteral("{not json"));
    QCOMPARE(await(models.supportedLocales()), QStringList{QStringLiteral("en-US")});
    QVERIFY(mark.messages().first().startsWith(QStringLiteral("transcriber: speechModelCatalog is not a JSON array of models")));
    QCOMPARE(await(TranscriberController::supportedLocaleIdentifiers()), QStringList{QStringLiteral("en-US")});
}

QTEST_GUILESS_MAIN(ModelInventoryTest)
#include "ModelInventoryTest.moc"
