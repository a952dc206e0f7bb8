#pragma once

// Synthesised speech a recogniser understands, and how many of its words came back.

#include <QString>
#include <QStringList>

#include <vector>

namespace SpeechTest {

// Sentences the installed pocketsphinx model hears well when synthesised.
inline const QString kFirst = QStringLiteral("please pick up milk and coffee on the way home");
inline const QString kSecond = QStringLiteral("the meeting moved to thursday afternoon");

// The folder of the pocketsphinx model installed for en-US (empty when there is none).
QString installedModel();

// Speech for `text` in festival's HTS voice, as 16 kHz mono float samples (empty when festival or
// sox is missing). `rate`/`channels` pick another output format; the file is written to `wavPath`
// when given.
std::vector<float> synthesize(const QString& text, const QString& wavPath = QString(), int rate = 16000, int channels = 1);

// The same speech without the silence before and after the words, for a speaker whose timing the
// test sets itself.
std::vector<float> withoutSilence(const std::vector<float>& samples);

// Lower-case words without punctuation.
QStringList words(const QString& text);
// How many of `expected`'s words appear in `actual`, in order (longest common subsequence).
int wordsInOrder(const QStringList& expected, const QStringList& actual);
// How many of the words `said` arrived, in order, in `arrived`.
inline int wordsHeard(const QString& said, const QString& arrived) { return wordsInOrder(words(said), words(arrived)); }

}  // namespace SpeechTest
