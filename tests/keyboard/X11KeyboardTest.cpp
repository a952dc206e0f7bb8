// The injector and the key monitor against a private X server and a real client, under the layout this
// build names: the client must receive exactly what was typed, pasted or let through.
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/TextInjector.h"
#include "storage/Preferences.h"
#include "support/RecordingClient.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QClipboard>
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
        for (auto [callback, name] : {std::pair{&HotkeyManager::onOptionDown, "down"}, {&HotkeyManager::onOptionUp, "up"},
                                      {&HotkeyManager::onToggleChord, "chord"}, {&HotkeyManager::onEscape, "esc"}, {&HotkeyManager::onAnyKey, "key"}})
            monitor_.*callback = [this, name] { events_ << QString::fromLatin1(name); };
    }

    void init()
    {
        if (QByteArray(QTest::currentTestFunction()).startsWith("monitor") && QStringLiteral(TOLVANE_TEST_LAYOUT) != u"us"_s)
            QSKIP("the monitor works on keycodes: the US layout run covers it");
        QVERIFY(client_.clear());
        events_.clear();
    }

    // A client slower than the typing still gets every character when the text holds more characters
    // the layout lacks than there are keycodes to lend them (a borrowed keycode changing its symbol
    // before such a client has read the keys pressed under the old one showed other characters).
    void slowClientGetsEveryCharacter()
    {
        QString text;  // more characters the layout lacks than there are keycodes to borrow, several times over
        for (char16_t c = u'\u4E00'; c < u'\u4E60'; ++c)
            text += QChar(c);
        QVERIFY(client_.setKeyDelay(8));
        const auto fast = qScopeGuard([this] { client_.setKeyDelay(0); });
        QVERIFY(injector_.insertText(text + u"#"_s));
        QCOMPARE(client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); }, 30000).text, text + u"#"_s);
        injector_.restoreMapping();
    }

    // Any text arrives exactly as typed, Backspace and Return too, even with a modifier still held or
    // Caps Lock on; the keycodes borrowed for characters the layout lacks are given back afterwards.
    void typesAnyUnicodeTextExactly()
    {
        const QByteArray before = fingers_.mapping();
        const QList<std::pair<unsigned long, QString>> cases{
            {0, u"中文输入测试，日本語のテキスト、한국어"_s}, {XK_Control_L, u"Hello, World! 0123456789 ~`@#$%^&*()_+-=[]{}|;:'\",.<>/?\\ yz YZ"_s},
            {XK_Shift_L, u"Grüße aus Köln: café, naïve, façade, Ærøskøbing, ĄĘŁŃŚŹŻ, ß €"_s}, {XK_Alt_L, u"emoji 😀👍🎉 and 👩‍💻 done"_s},
            {XK_Super_L, u"שלום עולם · مرحبا بالعالم"_s}, {XK_Control_R, u"line one\nline two\r\n\nend\u2028of\ttext\u0007\u0085 ok"_s},
            {XK_Caps_Lock, u"αβγδεζηθικλμνξοπρστυφχψω ΑΒΓΔ ¿¡ «» ‹› ‚„ “” ‘’ – — … ™ © ® ° ± × ÷ Plain Words"_s}};
        for (const auto& [modifier, text] : cases) {
            const unsigned kc = modifier ? fingers_.keycodeOf(modifier) : 0;
            const bool lock = modifier == XK_Caps_Lock;
            QVERIFY(client_.clear() && (kc || !modifier));
            lock ? fingers_.tap(kc) : kc ? fingers_.press(kc) : void();
            QVERIFY(injector_.insertText(text));
            injector_.deleteBackward(2);
            injector_.deleteBackward(0);
            injector_.deleteBackward(-3);
            injector_.pressReturn();
            QVERIFY(injector_.insertText(u"#"_s));  // same connection, so it arrives last
            const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); });
            QCOMPARE(fingers_.capsLocked(), lock);  // a lock stays on afterwards
            lock ? fingers_.tap(kc) : kc ? fingers_.release(kc) : void();
            QString arrived = QString(text).replace(u"\r\n"_s, u"\n"_s).replace(u'\u2028', u'\n').remove(u'\u0007').remove(u'\u0085');
            QCOMPARE(got.text, arrived.chopped(2) + u"\n#"_s);
            QCOMPARE(got.backspaces, 2);
        }
        QVERIFY(!injector_.insertText(QString()));
        QVERIFY(TestSupport::waitUntil([&] { return injector_.mappingRestored(); }));
        QCOMPARE(fingers_.mapping(), before);
    }

    // The text arrives through the clipboard, which then gets its previous content back, here one this
    // process's own Qt held (as after a copy from Tolvane's history); terminals are sent Ctrl+Shift+V
    // (the recording client counts it and pastes nothing itself). Pasting with Ctrl+V and an empty
    // clipboard restored are seen in X11ClipboardTest.
    void terminalPasteRestoresTheClipboard()
    {
        Preferences::shared().setValue(Settings::terminalClasses, u"someterm , Tolvane_Recording_Client"_s);
        QClipboard* clipboard = QGuiApplication::clipboard();
        clipboard->setText(u"old clipboard text"_s);
        const QString text = u"Pasted: ünïcödé 😀 中文\nsecond line"_s;
        QVERIFY(injector_.pasteViaClipboard(text));
        QCOMPARE(clipboard->text(), text);
        QVERIFY(injector_.insertText(u"#"_s));
        const auto got = client_.waitFor([](const auto& r) { return endsWith(r, u"#"_s); });
        QCOMPARE(got.text, u"#"_s);
        QCOMPARE(got.terminalPastes, 1);
        QVERIFY(TestSupport::waitUntil([&] { return clipboard->text() != text; }));
        QCOMPARE(clipboard->text(), u"old clipboard text"_s);
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

    // Live typing while the key is held: its keys reach the client and count as no chord or key.
    void monitorIgnoresTolvanesOwnTyping()
    {
        monitor_.setActivationKey(ActivationKey::leftOption);
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

    // Losing its X connection fires nothing; the monitor comes back by itself. The activation key it
    // reports is never a lone tap, while without the monitor the same tap is one.
    void monitorComesBackAndLeavesNoLoneActivationTap()
    {
        ::shutdown(monitor_.connectionFd(), SHUT_RDWR);
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() < 0; }));
        QVERIFY(TestSupport::waitUntil([&] { return monitor_.connectionFd() >= 0; }));
        fingers_.press(leftAlt);
        QVERIFY(waitEvents(u"down"_s));  // the monitor has pressed a neutral key by now
        fingers_.release(leftAlt);
        fingers_.tap(letterX);
        QCOMPARE(client_.waitFor([](const auto& r) { return endsWith(r, u"x"_s); }).loneAltTaps, 0);
        QVERIFY(waitEvents(u"down up key"_s));
        monitor_.stop();
        fingers_.tap(leftAlt);
        fingers_.tap(letterX);
        QCOMPARE(client_.waitFor([](const auto& r) { return endsWith(r, u"xx"_s); }).loneAltTaps, 1);
    }

private:
    bool waitEvents(const QString& expected)
    {
        const QStringList want = expected.split(u' ');
        const bool ok = TestSupport::waitUntil([&] { return events_.size() >= want.size(); });
        QTest::qWait(50);  // a callback too many would show up now
        if (events_ != want) qWarning() << "events" << events_ << "expected" << want;
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
