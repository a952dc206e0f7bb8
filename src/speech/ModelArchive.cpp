#include "speech/ModelArchive.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace ModelArchive {

namespace {

using Reader = std::unique_ptr<struct archive, decltype(&archive_read_free)>;

Reader makeReader()
{
    Reader reader(archive_read_new(), &archive_read_free);
    archive_read_support_format_tar(reader.get());
    for (auto filter : {archive_read_support_filter_gzip, archive_read_support_filter_bzip2,
                        archive_read_support_filter_xz, archive_read_support_filter_zstd})
        filter(reader.get());
    return reader;
}

QString libarchiveError(struct archive* reader)
{
    const char* text = archive_error_string(reader);
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("the archive cannot be read");
}

// Copies the current entry's data into `path`, counting it against what may still be written.
QString writeFile(struct archive* reader, const QString& path, const QString& name, qint64& budget)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QStringLiteral("cannot create \"%1\": %2").arg(name, file.errorString());
    char block[65536];
    for (;;) {
        const la_ssize_t got = archive_read_data(reader, block, sizeof block);
        if (got == 0)
            return {};
        if (got < 0)
            return libarchiveError(reader);
        // The data itself is counted, not the size the header claims.
        budget -= got;
        if (budget < 0)
            return QString();  // reported by the caller, which knows the limit
        if (file.write(block, got) != got)
            return QStringLiteral("cannot write \"%1\": %2").arg(name, file.errorString());
    }
}

QString unpack(struct archive* reader, const QString& folder, const Limits& limits)
{
    const QDir root(folder);
    const QString tooLarge = QStringLiteral("its files hold more than %1 bytes").arg(limits.maxBytes);
    qint64 budget = limits.maxBytes;
    int entries = 0;
    for (;;) {
        struct archive_entry* entry = nullptr;
        const int status = archive_read_next_header(reader, &entry);
        if (status == ARCHIVE_EOF)
            return entries > 0 ? QString() : QStringLiteral("the archive is empty");
        if (status < ARCHIVE_WARN)
            return libarchiveError(reader);
        if (++entries > limits.maxEntries)
            return QStringLiteral("it holds more than %1 entries").arg(limits.maxEntries);

        const char* rawName = archive_entry_pathname(entry);
        const QString name = rawName ? QFile::decodeName(rawName) : QString();
        const std::optional<QString> relative = safeRelativePath(name);
        if (!relative)
            return QStringLiteral("the entry \"%1\" would be written outside the model folder").arg(name);
        if (const char* target = archive_entry_hardlink(entry))
            return QStringLiteral("the entry \"%1\" is a hard link (to \"%2\"); a model holds plain files only")
                .arg(name, QFile::decodeName(target));
        const mode_t type = archive_entry_filetype(entry);
        if (type == AE_IFLNK) {
            const char* target = archive_entry_symlink(entry);
            return QStringLiteral("the entry \"%1\" is a symbolic link (to \"%2\"); a model holds plain files only")
                .arg(name, target ? QFile::decodeName(target) : QString());
        }
        if (type == AE_IFDIR) {
            if (!root.mkpath(relative->isEmpty() ? QStringLiteral(".") : *relative))
                return QStringLiteral("cannot create the folder \"%1\"").arg(name);
            continue;
        }
        if (type != AE_IFREG || relative->isEmpty())
            return QStringLiteral("the entry \"%1\" is not a plain file or folder").arg(name);
        // A size that cannot fit is refused before anything of it is written.
        if (archive_entry_size_is_set(entry) && archive_entry_size(entry) > budget)
            return tooLarge;
        const QString path = root.filePath(*relative);
        if (!root.mkpath(QFileInfo(*relative).path()))
            return QStringLiteral("cannot create the folder for \"%1\"").arg(name);
        const QString error = writeFile(reader, path, name, budget);
        if (budget < 0)
            return tooLarge;
        if (!error.isEmpty())
            return error;
    }
}

}  // namespace

std::optional<QString> safeRelativePath(const QString& entryName)
{
    if (entryName.isEmpty() || entryName.startsWith(QLatin1Char('/')))
        return std::nullopt;
    QStringList steps;
    for (const QString& step : entryName.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (step == QLatin1String(".."))
            return std::nullopt;
        if (step != QLatin1String("."))
            steps << step;
    }
    return steps.join(QLatin1Char('/'));
}

QString unpackFile(const QString& archivePath, const QString& folder, const Limits& limits)
{
    Reader reader = makeReader();
    if (archive_read_open_filename(reader.get(), QFile::encodeName(archivePath).constData(), 65536) != ARCHIVE_OK)
        return libarchiveError(reader.get());
    return unpack(reader.get(), folder, limits);
}

QString unpackData(const QByteArray& archive, const QString& folder, const Limits& limits)
{
    Reader reader = makeReader();
    if (archive_read_open_memory(reader.get(), archive.constData(), static_cast<size_t>(archive.size())) != ARCHIVE_OK)
        return libarchiveError(reader.get());
    return unpack(reader.get(), folder, limits);
}

}  // namespace ModelArchive
