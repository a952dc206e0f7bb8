#include "dictation/CompareModel.h"

QString CompareModel::instructionText()
{
    return QStringLiteral("Hold Left Alt and read your passage once, then release.");
}

CompareModel::CompareModel(QObject* parent) : QObject(parent), status_(instructionText()) {}

#define TOLVANE_SETTER(Name, field, signal)  \
    void CompareModel::Name(const QString& v) \
    {                                         \
        if (field == v)                       \
            return;                           \
        field = v;                            \
        Q_EMIT signal();                      \
    }
TOLVANE_SETTER(setStatus, status_, statusChanged)
TOLVANE_SETTER(setRaw, raw_, rawChanged)
TOLVANE_SETTER(setTidy, tidy_, tidyChanged)
TOLVANE_SETTER(setBullets, bullets_, bulletsChanged)
TOLVANE_SETTER(setSummary, summary_, summaryChanged)
#undef TOLVANE_SETTER

void CompareModel::setArmed(bool v)
{
    if (armed_ == v)
        return;
    armed_ = v;
    Q_EMIT armedChanged();
}

void CompareModel::reset()
{
    setArmed(true);
    setStatus(instructionText());
    setRaw(QString());
    setTidy(QString());
    setBullets(QString());
    setSummary(QString());
}
