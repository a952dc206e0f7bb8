#include "storage/DataLocation.h"

#include <QDir>
#include <QStandardPaths>

QString tolvaneDataDirectory()
{
    const QString dir =
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Tolvane");
    QDir().mkpath(dir);
    return dir;
}
