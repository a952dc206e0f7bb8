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
    QTemporaryDir dir_{qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + "/dictionary-XXXXXX"};
    const QString dict_ = dir_.filePath("words.dict"), lm_ = dir_.filePath("words.lm.bin"), cache_ = dir_.filePath("cache");

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
        QVERIFY(write(dict_, "one W AH N\ntwo T UW\nthree TH R IY\n") && write(lm_, "a language model"));
        int reads = 0;
        auto trimmed = [&] {
            return PronouncingDictionary::trimmedFor(dict_, lm_, cache_, [&](const QString& path) {
                ++reads;
                return path == lm_ ? QSet<QByteArray>{"one", "three", "four"} : QSet<QByteArray>{};
            });
        };
        const auto first = trimmed();
        QVERIFY2(first.problem.isEmpty() && first.path.startsWith(cache_), qPrintable(first.problem));
        QCOMPARE(entries(first.path), QByteArray("one W AH N\nthree TH R IY\n"));
        QCOMPARE(trimmed().path, first.path);
        QCOMPARE(reads, 1);
        // A changed dictionary is trimmed again, and so is a copy damaged on disk.
        QVERIFY(write(dict_, "one W AH N\ntwo T UW\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QVERIFY(write(first.path, "garbage"));
        QCOMPARE(entries(trimmed().path), QByteArray("one W AH N\nthree TH R IY\nfour F AO R\n"));
        QCOMPARE(reads, 3);
    }

    void fallsBackToTheWholeDictionary_data()
    {
        QTest::addColumn<QString>("dictionary");
        QTest::addColumn<QSet<QByteArray>>("vocabulary");
        QTest::addColumn<QString>("cache");
        QTest::addColumn<QString>("problem");
        QTest::newRow("unreadable model") << dict_ << QSet<QByteArray>() << cache_ << "cannot read the words of ";
        QTest::newRow("no word in common") << dict_ << QSet<QByteArray>{"zebra"} << cache_ << "no word of the dictionary is in ";
        QTest::newRow("cache not writable") << dict_ << QSet<QByteArray>{"one"} << dict_ + "/cache" << "cannot write ";  // under a file
        QTest::newRow("missing dictionary") << dir_.filePath("absent.dict") << QSet<QByteArray>{"one"} << cache_ << "cannot read ";
    }
    void fallsBackToTheWholeDictionary()
    {
        QFETCH(QString, dictionary);
        QFETCH(QSet<QByteArray>, vocabulary);
        QFETCH(QString, cache);
        QFETCH(QString, problem);
        QVERIFY(write(dict_, "one W AH N\n"));
        const auto trimmed = PronouncingDictionary::trimmedFor(dictionary, lm_, cache, [&](const QString&) { return vocabulary; });
        QCOMPARE(trimmed.path, dictionary);
        QVERIFY2(trimmed.problem.startsWith(problem), qPrintable(trimmed.problem));
    }
};

QTEST_GUILESS_MAIN(PronouncingDictionaryTest)
#include "PronouncingDictionaryTest.moc"
