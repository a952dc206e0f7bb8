#include "dictation/LiveTyping.h"

#include <QTest>

using namespace Qt::StringLiterals;

struct Case { QString screen, target, delta; int erase; QString insert; };

// Each pair of screen and transcript is read both ways: what to append while the user speaks, and
// what to erase and type once the final text is known.
class LiveTypingTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void appendAndReconcile_data()
    {
        QTest::addColumn<Case>("c");
        const auto row = [](const char* name, const Case& c) { QTest::newRow(name) << c; };
        row("empty screen", {{}, u"hi"_s, u"hi"_s, 0, u"hi"_s});
        row("grows", {u"I"_s, u"I want"_s, u" want"_s, 0, u" want"_s});
        row("revised", {u"I want"_s, u"I wand to"_s, u" to"_s, 1, u"d to"_s});
        row("not a prefix", {u"hello"_s, u"help me"_s, u"me"_s, 2, u"p me"_s});
        row("shorter", {u"hello world"_s, u"hello"_s, {}, 6, {}});
        row("same length", {u"abc"_s, u"abd"_s, {}, 1, u"d"_s});
        // Characters are what the user sees; canonically equivalent spellings are equal.
        row("combining mark", {u"caf\u0065\u0301"_s, u"caf\u00e9 au lait"_s, u" au lait"_s, 0, u" au lait"_s});
        row("emoji", {u"ok 👍🏽"_s, u"ok 👍🏽 thanks"_s, u" thanks"_s, 0, u" thanks"_s});
        row("accent erased once", {u"caf\u0065\u0301s"_s, u"cafe"_s, {}, 2, u"e"_s});
        row("flag erased once", {u"go 🇩🇪"_s, u"go!"_s, {}, 2, u"!"_s});
    }
    void appendAndReconcile()
    {
        QFETCH(Case, c);
        QCOMPARE(LiveTyping::appendDelta(c.screen, c.target), c.delta);
        QCOMPARE(LiveTyping::reconcile(c.screen, c.target), (LiveTyping::Reconciliation{c.erase, c.insert}));
    }
};

QTEST_GUILESS_MAIN(LiveTypingTest)
#include "LiveTypingTest.moc"
