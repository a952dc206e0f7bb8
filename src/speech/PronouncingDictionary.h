#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

#include <functional>

// A pronouncing dictionary cut down to the words its language model knows. The decoder searches
// only words the language model has, yet keeps every dictionary entry in memory: for the US English
// model that is 55,000 entries nobody can dictate and about 12 MiB.
namespace PronouncingDictionary {

// The entries of `dictionary` (one "word PH ONES" per line, alternates written "word(2)") whose
// word is in `vocabulary`, in their order. Comment and blank lines are dropped.
QByteArray keepOnly(const QByteArray& dictionary, const QSet<QByteArray>& vocabulary);

struct Trimmed {
    QString path;     // the dictionary to load: the trimmed copy, or the original when trimming failed
    QString problem;  // why the original is used, or empty
};

// The trimmed copy of `dictionary` for `languageModel`, kept in `cacheFolder` and made again only
// when either file changes. `wordsOf` reads a language model's vocabulary (empty when it cannot).
// Any failure falls back to the whole dictionary: it costs memory, never words.
Trimmed trimmedFor(const QString& dictionary, const QString& languageModel, const QString& cacheFolder,
                   const std::function<QSet<QByteArray>(const QString&)>& wordsOf);

}  // namespace PronouncingDictionary
