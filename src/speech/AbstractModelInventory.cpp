#include "speech/AbstractModelInventory.h"

QString modelStatusName(ModelStatus status)
{
    switch (status) {
    case ModelStatus::unsupported: return QStringLiteral("unsupported");
    case ModelStatus::supported: return QStringLiteral("supported");
    case ModelStatus::downloading: return QStringLiteral("downloading");
    case ModelStatus::installed: return QStringLiteral("installed");
    }
    return QStringLiteral("unsupported");
}
