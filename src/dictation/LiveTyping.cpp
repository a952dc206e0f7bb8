#include "dictation/LiveTyping.h"

#include <QTextBoundaryFinder>

namespace LiveTyping {

QStringList characters(const QString& text)
{
    QStringList out;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    while (finder.toNextBoundary() != -1) {
        const qsizetype end = finder.position();
        out.append(text.mid(start, end - start));
        start = end;
    }
    return out;
}

int characterCount(const QString& text)
{
    int count = 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}

QString appendDelta(const QString& screen, const QString& target)
{
    const int s = characterCount(screen);
    const QStringList t = characters(target);
    if (s >= t.size())
        return {};
    return t.mid(s).join(QString());
}

Reconciliation reconcile(const QString& screen, const QString& finalText)
{
    const QStringList s = characters(screen);
    const QStringList f = characters(finalText);
    const qsizetype n = std::min(s.size(), f.size());
    qsizetype p = 0;
    while (p < n && s[p].normalized(QString::NormalizationForm_C) == f[p].normalized(QString::NormalizationForm_C))
        ++p;
    return {static_cast<int>(s.size() - p), f.mid(p).join(QString())};
}

}  // namespace LiveTyping
