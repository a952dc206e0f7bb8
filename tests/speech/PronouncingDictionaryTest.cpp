#include "speech/PronouncingDictionary.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

bool write(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// A file's dictionary entries, without the stamp line of a trimmed copy.
QByteArray entries(const QString& path)
{
    QFile f(path);
    const QByteArray all = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    return all.startsWith("##") ? all.mid(all.indexOf('\n') + 1) : all;
}

}  // namespace

class PronouncingDictionaryTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void keepsEveryPronunciationOfKnownWordsOnly()
    {
        const QByteArray dictionary = "## a comment\n'bout B AW T\nread R IY D\nread(2) R EH D\nreader R IY D ER\n\nRead R IY D\n"
                                      ";; another comment\ntab\tT AE B\r\nlast L AE S T";  // no final line break
        QCOMPARE(PronouncingDictionary::keepOnly(dictionary, {"'bout", "read", "tab", "last", "unused"}),
                 QByteArray("'bout B AW T\nread R IY D\nread(2) R EH D\ntab\tT AE B\nlast L AE S T\n"));
    }

    void makesTheCopyOnceAndAgainWhenItsSourcesChange()
    {
        QTemporaryDir dir(qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + "/dictionary-XXXXXX");
        const QString dict = dir.filePath("words.dict"), lm = dir.filePath("words.lm.bin"), cache = dir.filePath("cache/dictionaries");
        QVERIFY(write(dict, "one W AH N\ntwo T UW\nthree TH R IY\n") && write(lm, "a language model"));
        int reads = 0;
        auto wordsOf = [&](const QString& path) {
            ++reads;
            return path == lm ? QSet<QByteArray>{"one", "three", "four"} : QSet<QByteArray>{};
        };
        auto trimmed = [&] { return PronouncingDictionary::trimmedFor(dict, lm, cache, wordsOf); };

        const auto first = trimmed();
        QVERIFY2(first.problem.isEmpty() && first.path.startsWith(cache), qPrintable(first.problem));
        QCOMPARE(entries(first.path), QByteArray("one W AH N\nthree TH R IY\n"));
        QCOMPARE(trimmed().path, first.path);
        QCOMPARE(reads, 1);
        // A changed dictionary is trimmed again, and so is a copy damaged on disk.
        QVERIFY(write(dict, "one W AH N\ntwo T UW\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QVERIFY(write(first.path, "garbage"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(reads, 3);
    }

    void fallsBackToTheWholeDictionary_data()
    {
        QTest::addColumn<QString>("dictionaryName");
        QTest::addColumn<QSet<QByteArray>>("vocabulary");
        QTest::addColumn<QString>("cacheName");
        QTest::addColumn<QString>("problemStart");
        QTest::newRow("unreadable model") << "words.dict" << QSet<QByteArray>() << "cache" << "cannot read the words of ";
        QTest::newRow("no word in common") << "words.dict" << QSet<QByteArray>{"zebra"} << "cache" << "no word of the dictionary is in ";
        // A file where the cache folder should be: nothing can be written under it.
        QTest::newRow("cache not writable") << "words.dict" << QSet<QByteArray>{"one"} << "words.dict" << "cannot write ";
        QTest::newRow("missing dictionary") << "absent.dict" << QSet<QByteArray>{"one"} << "cache" << "cannot read ";
    }
    void fallsBackToTheWholeDictionary()
    {
        QFETCH(QString, dictionaryName);
        QFETCH(QSet<QByteArray>, vocabulary);
        QFETCH(QString, cacheName);
        QFETCH(QString, problemStart);
        QTemporaryDir dir(qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + "/dictionary-XXXXXX");
        QVERIFY(write(dir.filePath("words.dict"), "one W AH N\n"));
        const auto trimmed = PronouncingDictionary::trimmedFor(dir.filePath(dictionaryName), dir.filePath("words.lm.bin"),
                                                               dir.filePath(cacheName), [&](const QString&) { return vocabulary; });
        QCOMPARE(trimmed.path, dir.filePath(dictionaryName));
        QVERIFY2(trimmed.problem.startsWith(problemStart), qPrintable(trimmed.problem));
        QCOMPARE(entries(dir.filePath("words.dict")), QByteArray("one W AH N\n"));
    }
};

QTEST_GUILESS_MAIN(PronouncingDictionaryTest)
#include "PronouncingDictionaryTest.moc"
