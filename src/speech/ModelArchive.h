#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Unpacks a speech model archive (tar, plain or compressed with gzip, bzip2, xz or zstd) into a
// folder with libarchive. An archive is refused as a whole when any entry would land outside the
// folder (an absolute path or a ".." step), is a link of either kind, or is anything but a plain
// file or folder, and when the files it holds grow past the limits: none of that is in a model.
// Files are created with the user's default permissions, never the archive's owners or modes.
namespace ModelArchive {

struct Limits {
    qint64 maxBytes = qint64(4) << 30;  // all files together (pocketsphinx models are tens of MB)
    int maxEntries = 100000;
};

// Unpacks into `folder`, which exists. An empty string on success, else why the archive was
// refused; the folder may then hold part of it, and the caller throws it away.
QString unpackFile(const QString& archivePath, const QString& folder, const Limits& limits = {});
QString unpackData(const QByteArray& archive, const QString& folder, const Limits& limits = {});

// An entry's path relative to the folder, with "." steps and repeated slashes dropped (empty for
// the folder itself), or nullopt when it is absolute or climbs out with "..".
std::optional<QString> safeRelativePath(const QString& entryName);

}  // namespace ModelArchive
