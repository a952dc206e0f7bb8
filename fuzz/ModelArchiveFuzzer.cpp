// Model archive unpacking: whatever the archive holds, nothing lands outside the folder it is
// unpacked in, no link is made, and no more than the limit is written.

#include "FuzzSupport.h"
#include "speech/ModelArchive.h"

#include <QDirIterator>
#include <QFileInfo>

#include <cstddef>
#include <cstdint>

namespace {
QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    // Two folders above the target, so an escape by one or two steps is seen.
    static const QString outer = FuzzSupport::scratch(QStringLiteral("archive"));
    const QString middle = outer + QStringLiteral("/middle"), target = middle + QStringLiteral("/model");
    FUZZ_CHECK(QDir().mkpath(target));
    ModelArchive::Limits limits;
    limits.maxBytes = 1 << 20;
    limits.maxEntries = 256;
    const auto archive = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    ModelArchive::unpackData(archive, target, limits);

    FUZZ_CHECK(entriesOf(outer) == QStringList{QStringLiteral("middle")});
    FUZZ_CHECK(entriesOf(middle) == QStringList{QStringLiteral("model")});
    qint64 written = 0;
    QDirIterator it(target, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        FUZZ_CHECK(!info.isSymLink());
        FUZZ_CHECK(info.isDir() || info.isFile());
        if (info.isFile())
            written += info.size();
    }
    FUZZ_CHECK(written <= limits.maxBytes);
    QDir(middle).removeRecursively();
    return 0;
}
