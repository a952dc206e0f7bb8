#include "speech/ModelInventory.h"

#include "core/Collaborators.h"
#include "speech/Background.h"
#include "speech/ModelArchive.h"
#include "speech/ModelCatalog.h"
#include "speech/PocketsphinxEngine.h"
#include "storage/DataLocation.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QUrl>

#include <qcoro/qcorosignal.h>

#include <algorithm>

namespace {

// "en-us" and "en_US" → "en-US"; the language lower-case, a two-letter region upper-case.
QString canonicalLocale(QString id)
{
    id.replace(QLatin1Char('_'), QLatin1Char('-'));
    QStringList parts = id.split(QLatin1Char('-'));
    if (parts.isEmpty())
        return id;
    parts[0] = parts[0].toLower();
    for (qsizetype i = 1; i < parts.size(); ++i) {
        if (parts[i].size() == 2)
            parts[i] = parts[i].toUpper();
    }
    return parts.join(QLatin1Char('-'));
}

bool sameLocale(const QString& a, const QString& b)
{
    return canonicalLocale(a).compare(canonicalLocale(b), Qt::CaseInsensitive) == 0;
}

// The subfolder of `parent` named after the locale, ignoring case and the separator.
QString localeFolder(const QString& parent, const QString& locale)
{
    const QDir dir(parent);
    for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (!name.startsWith(QLatin1Char('.')) && sameLocale(name, locale))
            return dir.filePath(name);
    }
    return {};
}

QString megabytes(qint64 bytes) { return QString::number(static_cast<double>(bytes) / 1e6, 'f', 1); }

}  // namespace

ModelInventory::Folders ModelInventory::defaultFolders()
{
    return {tolvaneDataDirectory() + QStringLiteral("/models"), QStringLiteral("/usr/share/pocketsphinx/model")};
}

ModelInventory::ModelInventory() : ModelInventory(defaultFolders()) {}

ModelInventory::ModelInventory(Folders folders) : folders_(std::move(folders)) {}

QList<ModelSource> ModelInventory::catalog()
{
    return ModelCatalog::parse(Preferences::shared().value(Settings::speechModelCatalog));
}

QString ModelInventory::installedModelFolder(const QString& locale) const
{
    for (const QString& parent : {folders_.installed, folders_.system}) {
        const QString folder = localeFolder(parent, locale);
        if (!folder.isEmpty() && PocketsphinxEngine::Model::inFolder(folder, canonicalLocale(locale)))
            return folder;
    }
    return {};
}

QStringList ModelInventory::installedLocales() const
{
    QStringList out;
    for (const QString& parent : {folders_.installed, folders_.system}) {
        const QDir dir(parent);
        for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
            if (name.startsWith(QLatin1Char('.')))
                continue;
            if (PocketsphinxEngine::Model::inFolder(dir.filePath(name), canonicalLocale(name)))
                out << canonicalLocale(name);
        }
    }
    return out;
}

QCoro::Task<QStringList> ModelInventory::supportedLocales()
{
    QStringList all = installedLocales();
    for (const ModelSource& s : catalog())
        all << canonicalLocale(s.locale);
    QStringList unique;
    for (const QString& id : all) {
        if (std::none_of(unique.begin(), unique.end(), [&id](const QString& u) { return sameLocale(u, id); }))
            unique << id;
    }
    std::sort(unique.begin(), unique.end());
    co_return unique;
}

QCoro::Task<ModelStatus> ModelInventory::status(QString locale)
{
    if (!installedModelFolder(locale).isEmpty())
        co_return ModelStatus::installed;
    if (installing_.contains(canonicalLocale(locale).toLower()))
        co_return ModelStatus::downloading;
    const QList<ModelSource> sources = catalog();
    if (std::any_of(sources.begin(), sources.end(), [&locale](const ModelSource& s) { return sameLocale(s.locale, locale); }))
        co_return ModelStatus::supported;
    co_return ModelStatus::unsupported;
}

QCoro::Task<std::optional<ModelSource>> ModelInventory::installationRequest(QString locale)
{
    if (!installedModelFolder(locale).isEmpty())
        co_return std::nullopt;
    for (const ModelSource& s : catalog()) {
        if (sameLocale(s.locale, locale))
            co_return s;
    }
    co_return std::nullopt;
}

void ModelInventory::removeLeftovers() const
{
    // Only while no install runs: an interrupted earlier install left these behind.
    if (!installing_.isEmpty())
        return;
    QDir dir(folders_.installed);
    for (const QFileInfo& info : dir.entryInfoList({QStringLiteral(".partial-*"), QStringLiteral(".old-*")},
                                                   QDir::Files | QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot)) {
        if (info.isDir())
            QDir(info.absoluteFilePath()).removeRecursively();
        else
            QFile::remove(info.absoluteFilePath());
    }
}

QCoro::Task<void> ModelInventory::fetch(ModelSource source, QString archivePath)
{
    const QUrl url = QUrl::fromUserInput(source.url, QDir::currentPath(), QUrl::AssumeLocalFile);
    const QString id = canonicalLocale(source.locale);
    if (url.isLocalFile()) {
        const QString from = url.toLocalFile();
        Diagnostics::log(QStringLiteral("transcriber: copying model archive for ") + id + QStringLiteral(" from ") + from);
        const QCoro::Task<bool> copying = Background::run([from, archivePath] { return QFile::copy(from, archivePath); });
        const bool copied = co_await copying;
        if (!copied)
            throw CollaboratorError(QStringLiteral("Could not read the speech model archive ") + from);
        co_return;
    }
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        throw CollaboratorError(QStringLiteral("Cannot fetch a speech model from ") + source.url);

    QFile file(archivePath);
    if (!file.open(QIODevice::WriteOnly))
        throw CollaboratorError(QStringLiteral("Could not write ") + archivePath + QStringLiteral(": ") + file.errorString());
    Diagnostics::log(QStringLiteral("transcriber: downloading model for ") + id + QStringLiteral(" from ") + url.toDisplayString());

    QNetworkAccessManager network;
    QNetworkRequest request(url);
    request.setTransferTimeout(30000);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    std::unique_ptr<QNetworkReply> reply(network.get(request));
    bool writeFailed = false;
    int loggedDecile = 0;
    QElapsedTimer sinceLog;
    sinceLog.start();
    QObject::connect(reply.get(), &QNetworkReply::readyRead, reply.get(), [&] {
        const QByteArray chunk = reply->readAll();
        if (file.write(chunk) != chunk.size())
            writeFailed = true;
    });
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, reply.get(), [&](qint64 received, qint64 total) {
        // One line per tenth of the archive, or every ten seconds when the size is unknown.
        const int decile = total > 0 ? static_cast<int>(received * 10 / total) : 0;
        if ((total > 0 && decile > loggedDecile && decile < 10) || (total <= 0 && sinceLog.elapsed() > 10000)) {
            loggedDecile = decile;
            sinceLog.restart();
            Diagnostics::log(QStringLiteral("transcriber: downloading model for ") + id + QStringLiteral(": ")
                             + (total > 0 ? QString::number(decile * 10) + QStringLiteral("% of ") + megabytes(total) + QStringLiteral(" MB")
                                          : megabytes(received) + QStringLiteral(" MB")));
        }
    });
    if (!reply->isFinished())
        co_await qCoro(reply.get(), &QNetworkReply::finished);
    const QByteArray rest = reply->readAll();
    if (file.write(rest) != rest.size())
        writeFailed = true;
    file.close();
    if (reply->error() != QNetworkReply::NoError) {
        throw CollaboratorError(QStringLiteral("Could not download the speech model for ") + id + QStringLiteral(": ")
                                + reply->errorString());
    }
    const int httpStatus = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (httpStatus != 200) {
        throw CollaboratorError(QStringLiteral("Could not download the speech model for ") + id
                                + QStringLiteral(": the server answered HTTP ") + QString::number(httpStatus));
    }
    if (writeFailed || file.error() != QFileDevice::NoError)
        throw CollaboratorError(QStringLiteral("Could not write ") + archivePath + QStringLiteral(": ") + file.errorString());
    Diagnostics::log(QStringLiteral("transcriber: downloaded model for ") + id + QStringLiteral(": ")
                     + megabytes(QFileInfo(archivePath).size()) + QStringLiteral(" MB"));
}

QCoro::Task<void> ModelInventory::downloadAndInstall(ModelSource source)
{
    const QString id = canonicalLocale(source.locale);
    const QString key = id.toLower();
    if (installing_.contains(key))
        throw CollaboratorError(QStringLiteral("The speech model for ") + id + QStringLiteral(" is already being installed."));
    if (!QDir().mkpath(folders_.installed))
        throw CollaboratorError(QStringLiteral("Could not create ") + folders_.installed);
    removeLeftovers();
    installing_.insert(key);
    struct Done {
        QSet<QString>& set;
        QString key;
        ~Done() { set.remove(key); }
    } done{installing_, key};

    // Everything lands under dot names in the models folder (one file system, so the final rename
    // is atomic) and goes away on any failure.
    QTemporaryDir staging(folders_.installed + QStringLiteral("/.partial-") + key + QStringLiteral("-XXXXXX"));
    if (!staging.isValid())
        throw CollaboratorError(QStringLiteral("Could not create a folder in ") + folders_.installed);
    const QString archive = staging.filePath(QStringLiteral("archive"));
    const QString unpacked = staging.filePath(QStringLiteral("model"));

    co_await fetch(source, archive);

    const QString expected = source.sha256.toLower();
    const QCoro::Task<QByteArray> hashing = Background::run([archive] {
        QFile f(archive);
        QCryptographicHash hash(QCryptographicHash::Sha256);
        if (!f.open(QIODevice::ReadOnly) || !hash.addData(&f))
            return QByteArray();
        return hash.result().toHex();
    });
    const QByteArray actual = co_await hashing;
    if (QString::fromLatin1(actual) != expected) {
        Diagnostics::log(QStringLiteral("transcriber: model archive for ") + id + QStringLiteral(" has SHA-256 ")
                         + QString::fromLatin1(actual) + QStringLiteral(", expected ") + expected);
        throw CollaboratorError(QStringLiteral("The speech model archive for ") + id
                                + QStringLiteral(" is damaged or incomplete (its SHA-256 does not match the catalogue)."));
    }
    Diagnostics::log(QStringLiteral("transcriber: model archive for ") + id + QStringLiteral(" verified; unpacking"));

    QDir().mkpath(unpacked);
    const QCoro::Task<QString> unpacking =
        Background::run([archive, unpacked] { return ModelArchive::unpackFile(archive, unpacked); });
    const QString refusal = co_await unpacking;
    if (!refusal.isEmpty()) {
        Diagnostics::log(QStringLiteral("transcriber: model archive for ") + id + QStringLiteral(" refused: ") + refusal);
        throw CollaboratorError(QStringLiteral("The speech model archive for ") + id
                                + QStringLiteral(" could not be unpacked: ") + refusal);
    }

    // The archive may hold the model at its top or inside one folder.
    QString root = unpacked;
    if (!PocketsphinxEngine::Model::inFolder(root, id)) {
        const QStringList entries = QDir(unpacked).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
        if (entries.size() == 1 && QFileInfo(QDir(unpacked).filePath(entries.first())).isDir())
            root = QDir(unpacked).filePath(entries.first());
    }
    if (!PocketsphinxEngine::Model::inFolder(root, id)) {
        throw CollaboratorError(QStringLiteral("The speech model archive for ") + id
                                + QStringLiteral(" holds no pocketsphinx model (an acoustic model folder, a language "
                                                 "model and a dictionary)."));
    }

    // A broken folder of the same name (not a model, or the install would not have been asked for)
    // is moved aside first, so the rename cannot fail on it.
    const QString target = QDir(folders_.installed).filePath(id);
    for (const QString& existing : {localeFolder(folders_.installed, id), target}) {
        if (!existing.isEmpty() && QFileInfo::exists(existing)) {
            const QString aside = staging.filePath(QStringLiteral("old"));
            if (!QDir().rename(existing, aside) || !QDir(aside).removeRecursively())
                throw CollaboratorError(QStringLiteral("Could not replace ") + existing);
        }
    }
    if (!QDir().rename(root, target))
        throw CollaboratorError(QStringLiteral("Could not move the speech model into ") + target);
    Diagnostics::log(QStringLiteral("transcriber: model for ") + id + QStringLiteral(" installed in ") + target);
}

QCoro::Task<std::shared_ptr<SpeechEngine>> ModelInventory::loadEngine(QString locale)
{
    // GCC 12 destroys temporaries of co_await expressions and conditional expressions in coroutines
    // twice: closures and tasks are named first.
    const QString folder = installedModelFolder(locale);
    std::optional<PocketsphinxEngine::Model> model;
    if (!folder.isEmpty())
        model = PocketsphinxEngine::Model::inFolder(folder, canonicalLocale(locale));
    if (!model)
        throw CollaboratorError(QStringLiteral("No speech model is installed for ") + canonicalLocale(locale) + QLatin1Char('.'));
    const PocketsphinxEngine::Model m = *model;
    PocketsphinxEngine::Settings settings;
    auto tuning = [](const Setting<int>& setting) {
        return std::chrono::milliseconds(std::clamp(Preferences::shared().value(setting), 0, 10000));
    };
    settings.leadIn = tuning(Settings::speechLeadInMs);
    settings.splitAfter = tuning(Settings::speechSplitAfterMs);
    if (Preferences::shared().value(Settings::speechDecoderPass) == QLatin1String("flat"))
        settings.pass = PocketsphinxEngine::Settings::Pass::flat;
    const QCoro::Task<std::shared_ptr<PocketsphinxEngine>> loading =
        Background::run([m, settings] { return PocketsphinxEngine::load(m, settings); });
    std::shared_ptr<SpeechEngine> engine = co_await loading;
    co_return engine;
}
