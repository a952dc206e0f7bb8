#include "storage/DataLocation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

QString tolvaneDataDirectory()
{
    const QString dir =
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Tolvane");
    QDir().mkpath(dir);
    return dir;
}

QString keepDamagedCopy(const QString& path)
{
    QFile file(path);
    QCryptographicHash digest(QCryptographicHash::Sha1);
    if (!file.open(QIODevice::ReadOnly) || !digest.addData(&file))
        return {};
    const QString copy = path + QStringLiteral(".damaged-") + QString::fromLatin1(digest.result().toHex().left(12));
    return QFile::exists(copy) || QFile::copy(path, copy) ? copy : QString();
}
