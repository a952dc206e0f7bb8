#include "speech/PronouncingDictionary.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace PronouncingDictionary {

namespace {

// The word of an entry: "read(2)" is the second pronunciation of "read".
QByteArray baseWord(QByteArray word)
{
    if (word.endsWith(')')) {
        const qsizetype open = word.lastIndexOf('(');
        if (open > 0)
            word.truncate(open);
    }
    return word;
}

bool isComment(const QByteArray& line) { return line.startsWith("##") || line.startsWith(";;"); }

// Names both source files as they are now: a copy made from older files is stale.
QByteArray stamp(const QFileInfo& dictionary, const QFileInfo& languageModel)
{
    auto describe = [](const QFileInfo& f) {
        return f.absoluteFilePath().toUtf8() + ' ' + QByteArray::number(f.size()) + ' '
               + QByteArray::number(f.lastModified().toMSecsSinceEpoch());
    };
    return "## Tolvane: the words of " + describe(languageModel) + " from " + describe(dictionary);
}

}  // namespace

QByteArray keepOnly(const QByteArray& dictionary, const QSet<QByteArray>& vocabulary)
{
    QByteArray out;
    out.reserve(dictionary.size());
    qsizetype at = 0;
    while (at < dictionary.size()) {
        qsizetype end = dictionary.indexOf('\n', at);
        if (end < 0)
            end = dictionary.size();
        const QByteArray line = dictionary.mid(at, end - at);
        at = end + 1;
        const QByteArray trimmed = line.trimmed();
        if (trimmed.isEmpty() || isComment(trimmed))
            continue;
        qsizetype wordEnd = 0;
        while (wordEnd < trimmed.size() && trimmed.at(wordEnd) != ' ' && trimmed.at(wordEnd) != '\t')
            ++wordEnd;
        if (vocabulary.contains(baseWord(trimmed.left(wordEnd))))
            out += trimmed + '\n';
    }
    return out;
}

Trimmed trimmedFor(const QString& dictionary, const QString& languageModel, const QString& cacheFolder,
                   const std::function<QSet<QByteArray>(const QString&)>& wordsOf)
{
    const QFileInfo dictInfo(dictionary), lmInfo(languageModel);
    const QByteArray header = stamp(dictInfo, lmInfo);
    const QByteArray key = QCryptographicHash::hash(dictInfo.absoluteFilePath().toUtf8() + '\n'
                                                        + lmInfo.absoluteFilePath().toUtf8(),
                                                    QCryptographicHash::Sha1)
                               .toHex()
                               .left(16);
    const QString copy = QDir(cacheFolder).filePath(QString::fromLatin1(key) + QStringLiteral(".dict"));

    QFile cached(copy);
    if (cached.open(QIODevice::ReadOnly) && cached.readLine().trimmed() == header)
        return {copy, {}};
    cached.close();

    QFile source(dictionary);
    if (!source.open(QIODevice::ReadOnly))
        return {dictionary, QStringLiteral("cannot read ") + dictionary};
    const QSet<QByteArray> vocabulary = wordsOf(languageModel);
    if (vocabulary.isEmpty())
        return {dictionary, QStringLiteral("cannot read the words of ") + languageModel};
    const QByteArray kept = keepOnly(source.readAll(), vocabulary);
    if (kept.isEmpty())
        return {dictionary, QStringLiteral("no word of the dictionary is in ") + languageModel};

    QDir().mkpath(cacheFolder);
    QSaveFile out(copy);
    if (!out.open(QIODevice::WriteOnly) || out.write(header + '\n' + kept) < 0 || !out.commit())
        return {dictionary, QStringLiteral("cannot write ") + copy};
    return {copy, {}};
}

}  // namespace PronouncingDictionary
