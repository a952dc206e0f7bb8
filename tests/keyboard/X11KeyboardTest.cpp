// The injector and the key monitor against a private X server and a real client, under the layout
// this build names (TOLVANE_TEST_LAYOUT): what the client receives must be exactly what was typed,
// pasted or let through, and the monitor must report exactly the user's own keys.
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/TextInjector.h"
#include "storage/Preferences.h"
#include "support/RecordingClient.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QClipboard>
#include <QMimeData>
#include <QProcess>
#include <QTest>

#include <X11/keysym.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {
constexpr unsigned space = 65, escape = 9, letterA = 38, letterX = 53, leftAlt = 64;
bool endsWith(const RecordingClient::Received& r, const QString& tail) { return r.text.endsWith(tail); }
}  // namespace

class X11KeyboardTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(fingers_.ok());
        // This test has an X server of its own, so the layout change stays here.
        QCOMPARE(QProcess::execute(u"setxkbmap"_s, {QStringLiteral(TOLVANE_TEST_LAYOUT)}), 0);
        QVERIFY(client_.start());
        monitor_.onOptionDown = [this] { events_ << u"down"_s; };
        monitor_.onOptionUp = [this] { events_ << u"up"_s; };
        monitor_.onToggleChord = [this] { events_ << u"chord"_s; };
        monitor_.onEscape = [this] { events_ << u"esc"_s; };
        monitor_.onAnyKey = [this] { events_ << u"key"_s; };
    }

    void init()
    {
        if (QByteArray(QTest::currentTestFunction()).startsWith("monitor") && QStringLiteral(TOLVANE_TEST_LAYOUT) != u"us"_s)
            QSKIP("the monitor works on keycodes: the US layout run covers it");
        QVERIFY(client_.clear());
        events_.clear();
    }

    void typesAnyUnicodeTextExactlyAndRestoresTheMapping()
    {
        const QByteArray before = fingers_.mapping();
        for (const QString& sample : {u"中文输入测试，日本語のテキスト、한국어"_s,
                                      u"Hello, World! 0123456789 ~`@#$%^&*()_+-=[]{}|;:'\",.<>/?\\ yz YZ"_s,
                                      u"Grüße aus Köln: café, naïve, façade, Ærøskøbing, ĄĘŁŃŚŹŻ, ß €"_s,
                                      u"emoji 😀👍🎉 and 👩‍💻 done"_s, u"שלום עולם · مرحبا بالعالم"_s,
                                      u"line one\nline two\r\n\nend\tof text"_s,
                                      u"αβγδεζηθικλμνξοπρστυφχψω ΑΒΓΔ ¿¡ «» ‹› ‚„ “” ‘’ – — … ™ © ® ° ± × ÷"_s}) {
            QVERIFY(client_.clear());
            QVERIFY(injector_.insertText(sample));
            const QString arrived = QString(sample).replace(u"\r\n"_s, u"\n"_s);
            QCOMPARE(client_.waitFor([&](const auto& r) { return r.text.size() >= arrived.size(); }).text, arrived);
        }
        QVERIFY(!injector_.insertText(QString()));
        QVERIFY(TestSupport::waitUntil([&] { return injector_.mappingRestored(); }));
        QCOMPARE(fingers_.mapping(), before);
    }

    void backspaceAndReturnArriveAsKeyPresses()
    {
        QVERIFY(injector_.insertText(u"abcé"_s));
        injector_.deleteBackward(2);
        injector_.deleteBackward(0);
        injector_.deleteBackward(-3);
        injector_.pressReturn();
        QVERIFY(injector_.insertText(u"#"_s));  // same connection, so it arrives last
        const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); });
        QCOMPARE(got.text, u"ab\n#"_s);
        QCOMPARE(got.backspaces, 2);
    }

    // The text arrives through the clipboard, which then gets its previous content back; terminals
    // are sent Ctrl+Shift+V (the recording client counts it and pastes nothing itself).
    void pasteArrivesAndRestoresTheClipboard_data()
    {
        QTest::addColumn<QString>("before");  // null: empty clipboard
        QTest::addColumn<bool>("terminal");
        QTest::newRow("clipboard held text") << u"old clipboard text"_s << false;
        QTest::newRow("clipboard empty") << QString() << false;
        QTest::newRow("terminal: Ctrl+Shift+V") << u"old clipboard text"_s << true;
    }
    void pasteArrivesAndRestoresTheClipboard()
    {
        QFETCH(QString, before);
        QFETCH(bool, terminal);
        Preferences::shared().setValue(Settings::terminalClasses, terminal ? u"someterm, tolvane_recording_client"_s : QString());
        QClipboard* clipboard = QGuiApplication::clipboard();
        before.isNull() ? clipboard->clear() : clipboard->setText(before);
        const QString text = u"Pasted: ünïcödé 😀 中文\nsecond line"_s;
        QVERIFY(injector_.pasteViaClipboard(text));
        QCOMPARE(clipboard->text(), text);
        QVERIFY(injector_.insertText(u"#"_s));
        const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); });
        QCOMPARE(got.text, terminal ? u"#"_s : text + u'#');
        QCOMPARE(got.terminalPastes, int(terminal));
        QVERIFY(TestSupport::waitUntil([&] { return clipboard->text() != text; }));
        QVERIFY(before.isNull() ? !clipboard->mimeData() || clipboard->text().isEmpty() : clipboard->text() == before);
    }

    // A held modifier or Caps Lock must change neither the text nor the Backspace.
    void typingUnderAHeldModifierOrCapsLockArrivesPlain()
    {
        for (const unsigned long modifier : {XK_Control_L, XK_Shift_L, XK_Alt_L, XK_Super_L, XK_Control_R, XK_Caps_Lock}) {
            const unsigned kc = fingers_.keycodeOf(modifier);
            QVERIFY(kc != 0 && client_.clear());
            const bool lock = modifier == XK_Caps_Lock;
            lock ? fingers_.tap(kc) : fingers_.press(kc);
            const QString text = u"Plain Words, é É ñ 😀 ΑΒγδ "_s;
            QVERIFY(injector_.insertText(text));
            injector_.deleteBackward(1);
            QVERIFY(injector_.insertText(u"#"_s));
            const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); });
            QCOMPARE(fingers_.capsLocked(), lock);  // a lock stays on afterwards
            lock ? fingers_.tap(kc) : fingers_.release(kc);
            QCOMPARE(got.text, text.chopped(1) + u'#');
        }
    }

    // Hold, chord once per Space press (that Space swallowed), Esc, any other key; the other side's
    // modifier is no activation key. Fn has no keycode on X11 and never fires.
    void monitorReportsEachActivationKey()
    {
        const TestSupport::LogMark mark;
        QVERIFY(monitor_.start());
        QVERIFY(monitor_.start());  // again: replaces the first
        QCOMPARE(mark.messages(), QStringList(2, u"HotkeyManager: event tap installed."_s));
        const std::map<unsigned, unsigned> otherSide{{64, 108}, {108, 64}, {133, 134}, {134, 133}, {105, 37}};
        for (const ActivationKey key : ActivationKeys::allCases) {
            const unsigned act = ActivationKeys::keyCode(key);
            init();
            monitor_.setActivationKey(key);
            fingers_.tap(space);
            if (act == 0) {
                QVERIFY(waitEvents(u"key"_s));
                continue;
            }
            fingers_.tap(otherSide.at(act));
            fingers_.press(act);
            QVERIFY(waitEvents(u"key down"_s));
            for (const unsigned kc : {space, space, escape, letterA, otherSide.at(act)})
                fingers_.tap(kc);
            fingers_.release(act);
            QVERIFY2(waitEvents(u"key down chord chord esc key up"_s), qPrintable(ActivationKeys::rawValue(key)));
            fingers_.tap(space);  // the grab is gone: this one is the user's again
            fingers_.tap(letterX);
            QVERIFY(waitEvents(u"key down chord chord esc key up key key"_s));
            const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"x"_s); });
            QVERIFY2(got.text.endsWith(u" x"_s) && got.spaces == 2, qPrintable(got.text));  // never the chord's
        }
    }

    void monitorNeverLeavesALoneActivationTap()
    {
        monitor_.setActivationKey(ActivationKey::leftOption);
        fingers_.press(leftAlt);
        QVERIFY(waitEvents(u"down"_s));  // the monitor has pressed a neutral key by now
        fingers_.release(leftAlt);
        fingers_.tap(letterX);
        QCOMPARE(client_.waitFor([](const auto& r) { return endsWith(r, u"x"_s); }).loneAltTaps, 0);
        monitor_.stop();  // without the monitor the same tap is a lone one: the client counts it
        fingers_.tap(leftAlt);
        fingers_.tap(letterX);
        QCOMPARE(client_.waitFor([](const auto& r) { return endsWith(r, u"xx"_s); }).loneAltTaps, 1);
        QVERIFY(monitor_.start());
    }

    // Live typing while the key is held: its keys reach the client and count as no chord or key.
    void monitorIgnoresTolvanesOwnTyping()
    {
        injector_.setHotkeyManager(&monitor_);
        fingers_.press(leftAlt);
        QVERIFY(waitEvents(u"down"_s));
        QVERIFY(injector_.insertText(u"one two é"_s));
        injector_.deleteBackward(1);
        QCOMPARE(client_.waitFor([](const auto& r) { return r.text == u"one two "_s; }).text, u"one two "_s);
        fingers_.tap(letterX);  // the user's own key still counts
        QVERIFY(waitEvents(u"down key"_s) && monitor_.isOptionDown());
        fingers_.release(leftAlt);
        QVERIFY(waitEvents(u"down key up"_s));
    }

    void monitorComesBackAfterLosingTheConnection()
    {
        const int fd = monitor_.connectionFd();
        QVERIFY(fd >= 0);
        ::shutdown(fd, SHUT_RDWR);
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() < 0; }));
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() >= 0; }));
        QVERIFY(events_.isEmpty());  // no callback for the loss itself
        fingers_.press(leftAlt);
        QVERIFY(waitEvents(u"down"_s));
        fingers_.release(leftAlt);
        QVERIFY(waitEvents(u"down up"_s));
    }

private:
    bool waitEvents(const QString& expected)
    {
        const QStringList want = expected.split(u' ');
        const bool ok = TestSupport::waitUntil([&] { return events_.size() >= want.size(); });
        QTest::qWait(50);  // a callback too many would show up now
        if (events_ != want)
            qWarning() << "events" << events_ << "expected" << want;
        return ok && events_ == want;
    }

    RecordingClient client_;
    Fingers fingers_;
    TextInjector injector_;
    HotkeyManager monitor_;
    QStringList events_;
};

QTEST_MAIN(X11KeyboardTest)
#include "X11KeyboardTest.moc"
