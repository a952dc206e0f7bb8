// The keyboard's decisions without a display, and what happens with no X server at all.
#include "keyboard/ClipboardContent.h"
#include "keyboard/ClipboardRestore.h"
#include "keyboard/SyntheticKeyLog.h"
#include "keyboard/TypingPlan.h"
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/TextInjector.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QTest>

using namespace Qt::StringLiterals;

class KeyboardLogicTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Spare keycodes have no symbols and are no modifier; the last is kept for the monitor's neutral
    // tap. The typing plan over them is seen in the X test (more characters the layout lacks than
    // there are spare keycodes, on a slow client).
    void spareKeycodesLeaveOneForTheNeutralTap()
    {
        const auto spares = spareKeycodes(8, 20, [](unsigned kc) { return kc % 3 != 0; }, [](unsigned kc) { return kc == 12; });
        QCOMPARE(spares, (std::vector<unsigned>{9, 15, 18}));
        QCOMPARE(typingPool(spares), (std::vector<unsigned>{9, 15}));
        QCOMPARE(tapNeutralKeycode(spares), std::optional<unsigned>(18));
        QVERIFY(!tapNeutralKeycode({}) && typingPool({}).empty());
    }

    void ownKeyEventsAreRecognisedInOrder()
    {
        SyntheticKeyLog log;
        const auto t0 = SyntheticKeyLog::Clock::now();
        for (const auto& [kc, press] : {std::pair{64u, true}, {64u, false}, {38u, true}, {38u, false}, {50u, true}})
            log.expect(kc, press, t0);  // the first press is dropped by the server (key already down)
        QVERIFY(!log.consume(40, true, t0));  // someone else's key
        QVERIFY(log.consume(64, false, t0) && !log.consume(64, true, t0) && log.consume(38, true, t0) && log.consume(38, false, t0));
        QVERIFY(!log.consume(38, false, t0));  // the user pressing the same key afterwards
        QVERIFY(!log.consume(50, true, t0 + SyntheticKeyLog::expiry + std::chrono::milliseconds(1)) && log.empty());
    }

    // When a clipboard lent to a paste comes back: "key@T" the keystroke, "TYPE@T" a request for TYPE
    // answered, "copy@T" another program's copy (times in ms); expected: how and when it comes back.
    void clipboardRestoreTiming_data()
    {
        QTest::addColumn<QString>("events");
        QTest::addColumn<QString>("restore");
        QTest::newRow("text asked: shortly after") << u"key@0 TARGETS@5 UTF8_STRING@300 text/plain@320"_s << u"answered@500"_s;
        QTest::newRow("only the list and the hint asked") << u"key@0 TARGETS@5 x-kde-passwordManagerHint@10"_s << u"noRequest@2000"_s;
        QTest::newRow("asked just before the limit") << u"key@0 text/plain;charset=utf-8@1900"_s << u"answered@2000"_s;
        QTest::newRow("asked before the keystroke") << u"UTF8_STRING@0 key@10"_s << u"noRequest@2010"_s;
        QTest::newRow("copied meanwhile") << u"key@0 copy@100 UTF8_STRING@150"_s << u"never"_s;
    }
    void clipboardRestoreTiming()
    {
        QFETCH(QString, events);
        QFETCH(QString, restore);
        using std::chrono::milliseconds;
        const auto t0 = ClipboardRestore::Clock::now();
        ClipboardRestore r;
        QVERIFY(r.needsSnapshot());
        r.dictationSet(ClipboardContent());
        QVERIFY(!r.needsSnapshot() && !r.wakeAt());
        for (const QString& e : events.split(u' ')) {
            const QString what = e.section(u'@', 0, 0);
            const auto at = t0 + milliseconds(e.section(u'@', 1).toInt());
            what == u"key"_s ? r.keystrokeSent(at) : what == u"copy"_s ? r.ownerChanged() : r.requestAnswered(what.toUtf8(), at);
        }
        QString got = u"never"_s;
        if (const auto at = r.wakeAt()) {
            QCOMPARE(r.due(*at - milliseconds(1)), ClipboardRestore::Due::notYet);
            got = (r.due(*at) == ClipboardRestore::Due::answered ? u"answered@"_s : u"noRequest@"_s)
                + QString::number(std::chrono::duration_cast<milliseconds>(*at - t0).count());
        }
        QCOMPARE(got, restore);
    }

    // A second paste before the restore brings back what was there before the first; beyond the cap
    // only plain text is kept; the dictation is offered as Latin-1 only when it fits.
    void clipboardKeepsTheUsersContent()
    {
        const auto item = [](const char* type, qsizetype size) { return ClipboardItem{type, QByteArray(size, 'x'), {}, 8}; };
        ClipboardContent users;
        users.add(item("image/png", 10));
        ClipboardRestore r;
        r.dictationSet(users);
        r.dictationSet(ClipboardContent::dictation(u"first"_s));
        QCOMPARE(r.take().items(), users.items());
        QVERIFY(!r.pending() && r.needsSnapshot());

        QCOMPARE(ClipboardContent::fetchOrder({"TARGETS", "image/png", "UTF8_STRING", "text/html", "text/plain;charset=utf-8", "MULTIPLE", "image/png"}),
                 QList<QByteArray>({"UTF8_STRING", "text/plain;charset=utf-8", "image/png", "text/html"}));
        ClipboardContent big;
        big.add(item("UTF8_STRING", 1000));
        big.add(item("image/png", 10 << 20));
        big.add(item("text/html", 7 << 20));
        big.add(item("text/plain", 20 << 20));  // text stays, whatever its size
        big.add(item("text/rtf", 1));
        QVERIFY(big.textOnly());
        QCOMPARE(big.items(), QList<ClipboardItem>({item("UTF8_STRING", 1000), item("text/plain", 20 << 20)}));

        const ClipboardContent d = ClipboardContent::dictation(u"naïve 中文"_s);
        QVERIFY(d.find("UTF8_STRING") && d.find("UTF8_STRING")->data == u"naïve 中文"_s.toUtf8() && !d.find("STRING"));
        QCOMPARE(ClipboardContent::dictation(u"naïve"_s).find("STRING")->data, u"naïve"_s.toLatin1());
    }

    void withoutADisplayNothingWorksAndNothingCrashes()
    {
        const TestSupport::LogMark mark;
        HotkeyManager monitor;
        QVERIFY(!monitor.start() && !monitor.start());  // may be called again
        monitor.stop();
        monitor.neutralizeModifierTap();
        TextInjector injector;
        injector.setHotkeyManager(&monitor);
        QVERIFY(!injector.insertText(u"hello"_s) && !injector.insertText(QString()) && !injector.pasteViaClipboard(u"hello"_s));
        injector.deleteBackward(3);
        injector.pressReturn();
        QCOMPARE(mark.messages(), QStringList(2, u"HotkeyManager: tapCreate returned nil — Accessibility not granted yet."_s));
    }
};

QTEST_MAIN(KeyboardLogicTest)
#include "KeyboardLogicTest.moc"
