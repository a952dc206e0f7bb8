#include "speech/PronouncingDictionary.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

bool write(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

QByteArray read(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The dictionary entries of a file, without its stamp line.
QByteArray entries(const QString& path)
{
    QByteArray all = read(path);
    return all.startsWith("##") ? all.mid(all.indexOf('\n') + 1) : all;
}

}  // namespace

class PronouncingDictionaryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void keepsEveryPronunciationOfKnownWordsOnly();
    void makesTheCopyOnceAndAgainWhenTheDictionaryChanges();
    void fallsBackToTheWholeDictionary_data();
    void fallsBackToTheWholeDictionary();
};

void PronouncingDictionaryTest::keepsEveryPronunciationOfKnownWordsOnly()
{
    const QByteArray dictionary = "## a comment\n"
                                  "'bout B AW T\n"
                                  "read R IY D\n"
                                  "read(2) R EH D\n"
                                  "reader R IY D ER\n"
                                  "\n"
                                  "Read R IY D\n"
                                  ";; another comment\n"
                                  "tab\tT AE B\r\n"
                                  "last L AE S T";  // no final line break
    const QSet<QByteArray> vocabulary{"'bout", "read", "tab", "last", "unused"};
    QCOMPARE(PronouncingDictionary::keepOnly(dictionary, vocabulary),
             QByteArray("'bout B AW T\nread R IY D\nread(2) R EH D\ntab\tT AE B\nlast L AE S T\n"));
    QCOMPARE(PronouncingDictionary::keepOnly(dictionary, {}), QByteArray());
}

void PronouncingDictionaryTest::makesTheCopyOnceAndAgainWhenTheDictionaryChanges()
{
    QTemporaryDir dir;
    const QString dict = dir.filePath(QStringLiteral("words.dict")), lm = dir.filePath(QStringLiteral("words.lm.bin"));
    const QString cache = dir.filePath(QStringLiteral("cache/dictionaries"));
    QVERIFY(write(dict, "one W AH N\ntwo T UW\nthree TH R IY\n") && write(lm, "a language model"));
    int reads = 0;
    auto wordsOf = [&](const QString& path) {
        ++reads;
        return path == lm ? QSet<QByteArray>{"one", "three", "four"} : QSet<QByteArray>{};
    };

    const auto first = PronouncingDictionary::trimmedFor(dict, lm, cache, wordsOf);
    QCOMPARE(first.problem, QString());
    QVERIFY(first.path.startsWith(cache));
    QCOMPARE(entries(first.path), QByteArray("one W AH N\nthree TH R IY\n"));
    QCOMPARE(PronouncingDictionary::trimmedFor(dict, lm, cache, wordsOf).path, first.path);
    QCOMPARE(reads, 1);

    // A changed dictionary is trimmed again.
    QVERIFY(write(dict, "one W AH N\ntwo T UW\nthree TH R IY\nfour F AO R\n"));
    const auto second = PronouncingDictionary::trimmedFor(dict, lm, cache, wordsOf);
    QCOMPARE(reads, 2);
    QCOMPARE(second.path, first.path);
    QCOMPARE(entries(second.path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));

    // A copy damaged on disk is not trusted.
    QVERIFY(write(second.path, "garbage"));
    QCOMPARE(entries(PronouncingDictionary::trimmedFor(dict, lm, cache, wordsOf).path),
             QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
    QCOMPARE(reads, 3);
}

void PronouncingDictionaryTest::fallsBackToTheWholeDictionary_data()
{
    QTest::addColumn<QString>("dictionaryName");
    QTest::addColumn<QStringList>("vocabulary");
    QTest::addColumn<bool>("cacheWritable");
    QTest::addColumn<QString>("problemStart");
    QTest::newRow("unreadable model") << "words.dict" << QStringList() << true << "cannot read the words of ";
    QTest::newRow("no word in common") << "words.dict" << QStringList{"zebra"} << true << "no word of the dictionary is in ";
    QTest::newRow("cache not writable") << "words.dict" << QStringList{"one"} << false << "cannot write ";
    QTest::newRow("missing dictionary") << "absent.dict" << QStringList{"one"} << true << "cannot read ";
}

void PronouncingDictionaryTest::fallsBackToTheWholeDictionary()
{
    QFETCH(QString, dictionaryName);
    QFETCH(QStringList, vocabulary);
    QFETCH(bool, cacheWritable);
    QFETCH(QString, problemStart);
    QTemporaryDir dir;
    const QString dict = dir.filePath(dictionaryName), lm = dir.filePath(QStringLiteral("words.lm.bin"));
    QVERIFY(write(dir.filePath(QStringLiteral("words.dict")), "one W AH N\n"));
    // A file where the cache folder should be: nothing can be written under it.
    const QString cache = cacheWritable ? dir.filePath(QStringLiteral("cache")) : dir.filePath(QStringLiteral("words.dict"));
    QSet<QByteArray> words;
    for (const QString& w : vocabulary)
        words.insert(w.toUtf8());

    const auto trimmed = PronouncingDictionary::trimmedFor(dict, lm, cache, [&](const QString&) { return words; });
    QCOMPARE(trimmed.path, dict);
    QVERIFY2(trimmed.problem.startsWith(problemStart), qPrintable(trimmed.problem));
    QCOMPARE(read(dir.filePath(QStringLiteral("words.dict"))), QByteArray("one W AH N\n"));
}

QTEST_GUILESS_MAIN(PronouncingDictionaryTest)
#include "PronouncingDictionaryTest.moc"
