// The key monitor against a real X server: what it reports for each activation key, what it
// swallows, what it leaves alone, and how it keeps the activation key from counting as a lone tap.
#include "support/RecordingClient.h"
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/TextInjector.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QTest>

#include <X11/keysym.h>

#include <sys/socket.h>

namespace {
constexpr unsigned space = 65, escape = 9, letterA = 38, letterX = 53;

// The key on the other side of the same family.
unsigned otherSide(unsigned kc)
{
    switch (kc) {
    case 64: return 108;
    case 108: return 64;
    case 133: return 134;
    case 134: return 133;
    case 105: return 37;
    default: return 0;
    }
}
}  // namespace

class HotkeyManagerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(fingers_.ok());
        QVERIFY(client_.start());
        monitor_.onOptionDown = [this] { events_ << QStringLiteral("down"); };
        monitor_.onOptionUp = [this] { events_ << QStringLiteral("up"); };
        monitor_.onToggleChord = [this] { events_ << QStringLiteral("chord"); };
        monitor_.onEscape = [this] { events_ << QStringLiteral("esc"); };
        monitor_.onAnyKey = [this] { events_ << QStringLiteral("key"); };
        TestSupport::LogMark mark;
        QVERIFY(monitor_.start());
        QVERIFY(monitor_.start());  // again: replaces the first
        QCOMPARE(mark.messages().count(QStringLiteral("HotkeyManager: event tap installed.")), 2);
    }

    void init()
    {
        QVERIFY(client_.clear());
        events_.clear();
    }

    void reportsEachActivationKeyAndSwallowsOnlyTheChordSpace()
    {
        for (const ActivationKey key : ActivationKeys::allCases) {
            const unsigned act = ActivationKeys::keyCode(key);
            if (act == 0)
                continue;  // Fn: no keycode on X11, it never fires
            init();
            monitor_.setActivationKey(key);
            QCOMPARE(monitor_.activationKey(), key);
            fingers_.tap(space);
            QVERIFY(waitEvents({"key"}));
            fingers_.tap(otherSide(act));  // the other side's modifier: nothing
            fingers_.press(act);
            QVERIFY(waitEvents({"key", "down"}));
            fingers_.tap(space);
            fingers_.tap(space);
            fingers_.tap(escape);
            fingers_.tap(letterA);
            fingers_.tap(otherSide(act));
            fingers_.release(act);
            QVERIFY(waitEvents({"key", "down", "chord", "chord", "esc", "key", "up"}));
            fingers_.tap(space);
            fingers_.tap(letterX);
            QVERIFY(waitEvents({"key", "down", "chord", "chord", "esc", "key", "up", "key", "key"}));
            const auto got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('x')); });
            QVERIFY2(got.text.endsWith(QLatin1String(" x")), qPrintable(got.text));
            QVERIFY2(got.spaces == 2, qPrintable(ActivationKeys::rawValue(key)));  // never the chord's
        }
        monitor_.setActivationKey(ActivationKey::fn);
        init();
        fingers_.tap(space);
        QVERIFY(waitEvents({"key"}));
    }

    void theActivationKeyIsNeverALoneTap()
    {
        monitor_.setActivationKey(ActivationKey::leftOption);
        fingers_.press(64);
        QVERIFY(waitEvents({"down"}));
        fingers_.release(64);
        QVERIFY(waitEvents({"down", "up"}));
        fingers_.tap(letterX);
        auto got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('x')); });
        QCOMPARE(got.loneAltTaps, 0);

        // Without the monitor the same tap is a lone one: the client counts it.
        monitor_.stop();
        fingers_.tap(64);
        fingers_.tap(letterX);
        got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1String("xx")); });
        QCOMPARE(got.loneAltTaps, 1);
        QVERIFY(monitor_.start());
    }

    void ownTypingIsNotTheUsers()
    {
        monitor_.setActivationKey(ActivationKey::leftOption);
        TextInjector injector;
        injector.setHotkeyManager(&monitor_);
        fingers_.press(64);
        QVERIFY(waitEvents({"down"}));
        // Live typing while the key is held: its spaces reach the client and are no chord.
        QVERIFY(injector.insertText(QStringLiteral("one two é")));
        injector.deleteBackward(1);
        const auto got = client_.waitFor([](const auto& r) { return r.text == QLatin1String("one two "); });
        QCOMPARE(got.text, QStringLiteral("one two "));
        fingers_.tap(letterX);  // the user's own key still counts
        QVERIFY(waitEvents({"down", "key"}));
        QVERIFY(monitor_.isOptionDown());
        fingers_.press(64);
        fingers_.release(64);
        QVERIFY(waitEvents({"down", "key", "up"}));
    }

    void comesBackAfterLosingTheConnection()
    {
        monitor_.setActivationKey(ActivationKey::leftOption);
        const int fd = monitor_.connectionFd();
        QVERIFY(fd >= 0);
        ::shutdown(fd, SHUT_RDWR);
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() < 0; }));
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() >= 0; }));
        QVERIFY(events_.isEmpty());  // no callback for the loss itself
        fingers_.press(64);
        QVERIFY(waitEvents({"down"}));
        fingers_.release(64);
        QVERIFY(waitEvents({"down", "up"}));
    }

private:
    bool waitEvents(std::initializer_list<const char*> expected)
    {
        QStringList want;
        for (const char* e : expected)
            want << QString::fromLatin1(e);
        const bool ok = TestSupport::waitUntil([&] { return events_.size() >= want.size(); });
        QTest::qWait(50);  // a callback too many would show up now
        if (!ok || events_ != want)
            qWarning() << "events" << events_ << "expected" << want;
        return ok && events_ == want;
    }

    RecordingClient client_;
    Fingers fingers_;
    HotkeyManager monitor_;
    QStringList events_;
};

QTEST_MAIN(HotkeyManagerTest)
#include "HotkeyManagerTest.moc"
