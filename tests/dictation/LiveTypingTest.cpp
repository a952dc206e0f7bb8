#include "dictation/LiveTyping.h"

#include <QTest>

using LiveTyping::Reconciliation;

class LiveTypingTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void appendDelta_data()
    {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("delta");
        QTest::newRow("first word") << QString() << QStringLiteral("I") << QStringLiteral("I");
        QTest::newRow("grows") << QStringLiteral("I") << QStringLiteral("I want") << QStringLiteral(" want");
        QTest::newRow("revised target, length only") << QStringLiteral("I want") << QStringLiteral("I wand to") << QStringLiteral(" to");
        QTest::newRow("screen longer") << QStringLiteral("hello world") << QStringLiteral("hello") << QString();
        QTest::newRow("same length") << QStringLiteral("abc") << QStringLiteral("xyz") << QString();
        QTest::newRow("not a prefix") << QStringLiteral("hello") << QStringLiteral("help me") << QStringLiteral("me");
        // e + combining acute is one character on screen: the next character is the blank.
        QTest::newRow("combining mark") << QStringLiteral("caf\u0065\u0301") << QStringLiteral("caf\u00e9 au lait")
                                        << QStringLiteral(" au lait");
        QTest::newRow("emoji") << QStringLiteral("ok 👍🏽") << QStringLiteral("ok 👍🏽 thanks") << QStringLiteral(" thanks");
    }
    void appendDelta()
    {
        QFETCH(QString, screen);
        QFETCH(QString, target);
        QFETCH(QString, delta);
        QCOMPARE(LiveTyping::appendDelta(screen, target), delta);
    }

    void reconcile_data()
    {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<QString>("final");
        QTest::addColumn<int>("deleteCount");
        QTest::addColumn<QString>("insert");
        QTest::newRow("last differs") << QStringLiteral("abc") << QStringLiteral("abd") << 1 << QStringLiteral("d");
        QTest::newRow("shorter") << QStringLiteral("abc") << QStringLiteral("ab") << 1 << QString();
        QTest::newRow("empty screen") << QString() << QStringLiteral("hi") << 0 << QStringLiteral("hi");
        QTest::newRow("same") << QStringLiteral("same") << QStringLiteral("same") << 0 << QString();
        QTest::newRow("worked example") << QStringLiteral("I want to") << QStringLiteral("I want to go") << 0 << QStringLiteral(" go");
        QTest::newRow("hellome") << QStringLiteral("hellome") << QStringLiteral("help me") << 4 << QStringLiteral("p me");
        // Canonically equivalent spellings are equal; a multi-code-point character is one Backspace.
        QTest::newRow("equivalent") << QStringLiteral("caf\u0065\u0301") << QStringLiteral("caf\u00e9") << 0 << QString();
        QTest::newRow("accent erased once") << QStringLiteral("caf\u0065\u0301s") << QStringLiteral("cafe") << 2 << QStringLiteral("e");
        QTest::newRow("flag erased once") << QStringLiteral("go 🇩🇪") << QStringLiteral("go!") << 2 << QStringLiteral("!");
    }
    void reconcile()
    {
        QFETCH(QString, screen);
        QFETCH(QString, final);
        QFETCH(int, deleteCount);
        QFETCH(QString, insert);
        QCOMPARE(LiveTyping::reconcile(screen, final), (Reconciliation{deleteCount, insert}));
    }
};

QTEST_GUILESS_MAIN(LiveTypingTest)
#include "LiveTypingTest.moc"
