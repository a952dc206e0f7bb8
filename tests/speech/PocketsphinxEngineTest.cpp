// Synthesised speech through the installed pocketsphinx model, and models installed from archives.

#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"

#include "speech/ModelInventory.h"
#include "speech/PocketsphinxEngine.h"
#include "speech/TranscriberController.h"
#include "storage/DataLocation.h"
#include "storage/Preferences.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using TestSupport::await;

namespace {

const QString kFirst = QStringLiteral("please pick up milk and coffee on the way home");
const QString kSecond = QStringLiteral("the meeting moved to thursday afternoon");

QString installedModel() { return ModelInventory().installedModelFolder(QStringLiteral("en-US")); }

// The model kept in a folder, offered as en-US and loaded with the given settings.
class ModelsWithSettings final : public AbstractModelInventory {
public:
    QString folder = installedModel();
    PocketsphinxEngine::Settings settings;
    std::shared_ptr<PocketsphinxEngine> engine;  // the last one loaded

    QCoro::Task<QStringList> supportedLocales() override { co_return QStringList{"en-US"}; }
    QCoro::Task<ModelStatus> status(QString) override { co_return ModelStatus::installed; }
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString) override { co_return std::nullopt; }
    QCoro::Task<void> downloadAndInstall(ModelSource) override { co_return; }
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) override
    {
        engine = PocketsphinxEngine::load(PocketsphinxEngine::Model::inFolder(folder, locale).value(), settings);
        co_return std::shared_ptr<SpeechEngine>(engine);
    }
};

// Feeds samples in blocks of the size capture delivers after conversion.
void feed(TranscriberController& controller, const std::vector<float>& samples, AudioFormat format = {16000, 1})
{
    const auto input = controller.inputContinuation();
    for (size_t at = 0; at < samples.size(); at += 341)
        input->yield(AudioBuffer{format, std::vector<float>(samples.begin() + at, samples.begin() + std::min(samples.size(), at + 341))});
}

// One whole session over the samples: what the controller heard.
QString session(TranscriberController& controller, const std::vector<float>& samples)
{
    await(controller.start());
    feed(controller, samples);
    return await(controller.finish());
}

// How many of the words said were heard, in order.
int heard(const QString& said, const QString& text) { return SpeechTest::wordsInOrder(SpeechTest::words(said), SpeechTest::words(text)); }

// What `tar -c` writes for `members`, run in `folder`.
QByteArray tar(const QString& folder, const QStringList& members)
{
    QProcess p;
    p.setWorkingDirectory(folder);
    p.start(QStringLiteral("tar"), QStringList{"-cf", "-"} + members);
    return p.waitForFinished() ? p.readAllStandardOutput() : QByteArray();
}

template <typename T>
QString thrown(QCoro::Task<T> task)
{
    try {
        await(std::move(task));
    } catch (const CollaboratorError& e) {
        return e.localizedDescription();
    }
    return {};
}

QStringList modelsFolder() { return QDir(tolvaneDataDirectory() + "/models").entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot); }

}  // namespace

class PocketsphinxEngineTest : public QObject {
    Q_OBJECT
    std::vector<float> first_, second_;  // synthesised once, the slow part
    QTcpServer server_;                  // answers every request with the archive
    QByteArray archive_;
    bool cut_ = false;

private Q_SLOTS:
    void initTestCase()
    {
        first_ = SpeechTest::synthesize(kFirst);
        second_ = SpeechTest::synthesize(kSecond);
        QVERIFY2(!first_.empty() && !second_.empty(), "festival (text2wave with festvox-us-slt-hts) and sox are needed");
        QVERIFY2(!installedModel().isEmpty(), "pocketsphinx-en-us is needed");
        QVERIFY(server_.listen(QHostAddress::LocalHost));
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = server_.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                if (!socket->peek(socket->bytesAvailable()).contains("\r\n\r\n"))
                    return;
                socket->readAll();
                // A cut download announces the whole length but sends only half before closing.
                socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + QByteArray::number(archive_.size()) + "\r\n\r\n"
                              + archive_.left(cut_ ? archive_.size() / 2 : archive_.size()));
                socket->disconnectFromHost();
            });
        });
    }

    void transcribesBySegmentsAndTheTrimmedDictionaryHearsWhatTheWholeOneHears()
    {
        TranscriberController controller;
        QStringList committed;  // read once finish() has ended the results thread
        controller.onPartial = [&](QString text, QString) { committed << text; };
        await(controller.prepare(QStringLiteral("en-us")));

        // Audio in another format is dropped and said so; the two sentences after it, with a pause
        // long enough for the voice-activity end between them, are heard.
        TestSupport::LogMark mark;
        await(controller.start());
        feed(controller, first_, {44100, 2});
        std::vector<float> audio = first_;
        audio.insert(audio.end(), 16000, 0.0f);
        audio.insert(audio.end(), second_.begin(), second_.end());
        feed(controller, audio);
        const QString text = await(controller.finish());
        QVERIFY2(heard(kFirst + ' ' + kSecond, text) >= 11, qPrintable(text));  // of 15
        QVERIFY(mark.messages().contains("transcriber: dropping audio in 44100.0Hz/2ch; the recognizer takes 16000.0Hz/1ch"));
        // No fallback to the whole dictionary, or the comparison below would prove nothing.
        QVERIFY2(mark.messages().filter("whole dictionary").isEmpty(), qPrintable(mark.messages().join('\n')));

        // The pause ended the first segment: its words were committed before the second's.
        const QString firstCommit = committed.value(committed.lastIndexOf(QString()) + 1);
        QVERIFY2(heard(kSecond, firstCommit) <= 1 && heard(kFirst, firstCommit) >= 5, qPrintable(firstCommit));

        auto whole = std::make_shared<ModelsWithSettings>();
        whole->settings.trimDictionary = false;
        TranscriberController wholeDictionary(whole);
        await(wholeDictionary.prepare(QStringLiteral("en-US")));
        QCOMPARE(session(wholeDictionary, audio), text);
    }

    void releasesAnUnusedModelAndLoadsItAgainWithoutLosingSpeech()
    {
        // The installed model, seen through a link that can be taken away and put back.
        const QString link = AudioTest::sandboxPath(QStringLiteral("linked-model"));
        QVERIFY(QFile::link(installedModel(), link));
        auto models = std::make_shared<ModelsWithSettings>();
        models->folder = link;
        models->settings.keepLoaded = std::chrono::milliseconds(200);
        TranscriberController controller(models);
        await(controller.prepare(QStringLiteral("en-US")));
        const std::shared_ptr<PocketsphinxEngine> engine = models->engine;
        QVERIFY(engine->isLoaded());
        QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));

        // Gone while released, the model fails only the session that needed it.
        QVERIFY(QFile::remove(link));
        TestSupport::LogMark mark;
        QCOMPARE(session(controller, first_), QString());
        QVERIFY2(mark.messages().contains("transcriber: results stream error: Could not load the speech model in " + link),
                 qPrintable(mark.messages().join('\n')));

        // Put back, it serves the next session: all of whose speech arrives before the decoding
        // thread has loaded the model, and which keeps the model while it outlasts the keep-alive.
        QVERIFY(QFile::link(installedModel(), link));
        await(controller.start());
        feed(controller, first_);
        QVERIFY(TestSupport::waitUntil([&] { return engine->isLoaded(); }, 10000));
        QTest::qWait(400);
        QVERIFY(engine->isLoaded());
        const QString text = await(controller.finish());
        QVERIFY2(heard(kFirst, text) >= 7, qPrintable(text));  // of 10
        QVERIFY(TestSupport::waitUntil([&] { return !engine->isLoaded(); }, 10000));
    }

    void installsVerifiedModelsWholeOrNotAtAll_data()
    {
        // A model's files, empty: enough to be installed. An archive member climbing out of the folder
        // it is unpacked in would land in the data folder.
        const QString root = AudioTest::sandboxPath(QStringLiteral("archives")), model = root + "/en-gb-model";
        QVERIFY(QDir().mkpath(model + "/acoustic") && QDir().mkpath(root + "/a/b/c"));
        for (const char* name : {"acoustic/mdef", "acoustic/means", "acoustic/variances", "acoustic/transition_matrices", "en-gb.lm.bin",
                                 "en-gb.dict", "../readme", "../escaped"})
            QVERIFY(QFile(model + '/' + name).open(QIODevice::WriteOnly));
        const QByteArray whole = tar(root, {"en-gb-model"});
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<QString>("via");  // http, a cut http download or a file
        QTest::addColumn<bool>("rightSum");
        QTest::addColumn<QString>("error");  // how it starts; none: installed
        QTest::newRow("from loopback") << whole << "http" << true << QString();
        QTest::newRow("from a file, over a killed install's leftovers") << whole << "file" << true << QString();
        QTest::newRow("checksum mismatch") << whole << "http" << false
                                           << "The speech model archive for en-GB is damaged or incomplete (its SHA-256 does not match the catalogue).";
        QTest::newRow("interrupted download") << whole << "cut" << true << "Could not download the speech model for en-GB: ";
        QTest::newRow("not an archive") << QByteArray(4096, 'x') << "http" << true << "The speech model archive for en-GB could not be unpacked: ";
        QTest::newRow("no model inside") << tar(root, {"readme"}) << "http" << true
                                         << "The speech model archive for en-GB holds no pocketsphinx model (an acoustic model folder, "
                                            "a language model and a dictionary).";
        QTest::newRow("member escaping") << tar(root + "/a/b/c", {"-P", "../../../escaped"}) << "http" << true
                                         << "The speech model archive for en-GB could not be unpacked: ";
    }
    void installsVerifiedModelsWholeOrNotAtAll()
    {
        QFETCH(QByteArray, archive);
        QFETCH(QString, via);
        QFETCH(bool, rightSum);
        QFETCH(QString, error);
        const QString models = tolvaneDataDirectory() + "/models";
        QDir(models).removeRecursively();
        ModelInventory inventory;
        if (via == "file") {
            // What a killed install leaves: a hidden partial folder holding a complete-looking model, not taken for one.
            QVERIFY(QDir().mkpath(models + "/.partial-en-gb-abc123/en-GB"));
            QVERIFY(QProcess::execute("cp", {"-r", AudioTest::sandboxPath("archives/en-gb-model/."), models + "/.partial-en-gb-abc123/en-GB"}) == 0);
            QVERIFY(!inventory.installedLocales().contains("en-GB"));
        }
        archive_ = archive;
        cut_ = via == "cut";
        QFile file(AudioTest::sandboxPath("model.tar"));
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(archive) == archive.size());
        file.close();
        const QString sum = QString::fromLatin1(QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex());
        const ModelSource source{"en-GB", via == "file" ? file.fileName() : QString("http://127.0.0.1:%1/model.tar").arg(server_.serverPort()), rightSum ? sum : QString(64, '0')};
        Preferences::shared().setValue(Settings::speechModelCatalog,
                                       QString(R"([{"locale": "en-GB", "url": "%1", "sha256": "%2"}])").arg(source.url, source.sha256));
        QCOMPARE(await(inventory.status("en-gb")), ModelStatus::supported);
        QCOMPARE(await(inventory.installationRequest("EN-GB")), std::optional(source));

        const QString message = thrown(inventory.downloadAndInstall(source));
        QVERIFY2(error.isEmpty() ? message.isEmpty() : message.startsWith(error), qPrintable(message));
        // The model appears whole under its language's name, or nothing is left at all.
        QCOMPARE(modelsFolder(), error.isEmpty() ? QStringList{"en-GB"} : QStringList());
        QCOMPARE(await(inventory.status("en-GB")), error.isEmpty() ? ModelStatus::installed : ModelStatus::supported);
        QVERIFY(!QFileInfo::exists(tolvaneDataDirectory() + "/escaped"));
        if (!error.isEmpty())
            QCOMPARE(thrown(inventory.loadEngine("en-GB")), QStringLiteral("No speech model is installed for en-GB."));
    }
};

QTEST_GUILESS_MAIN(PocketsphinxEngineTest)
#include "PocketsphinxEngineTest.moc"
