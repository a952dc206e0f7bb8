#pragma once

#include <QString>

// A history record that proves itself whole: "<number> <length>:" and then that many letters,
// lengths differing from record to record so that writes take different times.
namespace HistoryRecord {

inline QString make(int number)
{
    const int length = 500 + (number * 7919) % 8000;
    return QStringLiteral("%1 %2:").arg(number).arg(length) + QString(length, QChar(u'a' + number % 26));
}

// The record's number, or -1 when the text is not exactly the record it claims to be.
inline int number(const QString& text)
{
    bool ok = false;
    const int n = text.section(QLatin1Char(' '), 0, 0).toInt(&ok);
    return ok && n >= 0 && text == make(n) ? n : -1;
}

}  // namespace HistoryRecord
