#include "dictation/LiveTyping.h"

#include <QTest>

// Each pair of screen and transcript is read both ways: what to append while the user speaks, and
// what to erase and type once the final text is known.
class LiveTypingTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void appendAndReconcile_data()
    {
        QTest::addColumn<QString>("screen");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("delta");
        QTest::addColumn<int>("erase");
        QTest::addColumn<QString>("insert");
        QTest::newRow("empty screen") << QString() << QStringLiteral("hi") << QStringLiteral("hi") << 0 << QStringLiteral("hi");
        QTest::newRow("grows") << QStringLiteral("I") << QStringLiteral("I want") << QStringLiteral(" want") << 0
                               << QStringLiteral(" want");
        QTest::newRow("revised") << QStringLiteral("I want") << QStringLiteral("I wand to") << QStringLiteral(" to") << 1
                                 << QStringLiteral("d to");
        QTest::newRow("not a prefix") << QStringLiteral("hello") << QStringLiteral("help me") << QStringLiteral("me") << 2
                                      << QStringLiteral("p me");
        QTest::newRow("shorter") << QStringLiteral("hello world") << QStringLiteral("hello") << QString() << 6 << QString();
        QTest::newRow("same length") << QStringLiteral("abc") << QStringLiteral("abd") << QString() << 1 << QStringLiteral("d");
        // Characters are what the user sees; canonically equivalent spellings are equal.
        QTest::newRow("combining mark") << QStringLiteral("caf\u0065\u0301") << QStringLiteral("caf\u00e9 au lait")
                                        << QStringLiteral(" au lait") << 0 << QStringLiteral(" au lait");
        QTest::newRow("emoji") << QStringLiteral("ok 👍🏽") << QStringLiteral("ok 👍🏽 thanks") << QStringLiteral(" thanks") << 0
                               << QStringLiteral(" thanks");
        QTest::newRow("accent erased once") << QStringLiteral("caf\u0065\u0301s") << QStringLiteral("cafe") << QString() << 2
                                            << QStringLiteral("e");
        QTest::newRow("flag erased once") << QStringLiteral("go 🇩🇪") << QStringLiteral("go!") << QString() << 2
                                          << QStringLiteral("!");
    }
    void appendAndReconcile()
    {
        QFETCH(QString, screen);
        QFETCH(QString, target);
        QFETCH(QString, delta);
        QFETCH(int, erase);
        QFETCH(QString, insert);
        QCOMPARE(LiveTyping::appendDelta(screen, target), delta);
        QCOMPARE(LiveTyping::reconcile(screen, target), (LiveTyping::Reconciliation{erase, insert}));
    }
};

QTEST_GUILESS_MAIN(LiveTypingTest)
#include "LiveTypingTest.moc"
