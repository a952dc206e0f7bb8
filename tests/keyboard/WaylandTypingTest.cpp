// Typing and pasting into a real Wayland client: foot, in a headless sway session of the test's
// own, its program `cat` writing down every byte the terminal sends. Built once per keyboard layout
// that sway is configured with (TOLVANE_TEST_LAYOUT): Tolvane's own keymap makes it irrelevant.
#include "keyboard/wayland/WaylandConnection.h"
#include "keyboard/wayland/WaylandTextInjector.h"
#include "support/ClipboardClient.h"
#include "support/Sway.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

class WaylandTypingTest : public QObject {
    Q_OBJECT
    SwaySession sway_;
    std::unique_ptr<WaylandConnection> observer_;
    std::unique_ptr<WaylandTextInjector> injector_;

    static QByteArray terminalBytes() { return TestSupport::readFile(SwaySession::terminalOutput()); }
    // Waits until the terminal has received `expected` after the `before` bytes it had.
    static bool received(qsizetype before, const QByteArray& expected)
    {
        const bool ok = TestSupport::waitUntil([&] { return terminalBytes().mid(before) == expected; }, 10000);
        if (!ok)
            qWarning() << "terminal received" << terminalBytes().mid(before) << "expected" << expected;
        return ok;
    }
    // Runs a wl-clipboard tool against the session while the event loop (and so Tolvane's clipboard) runs.
    QByteArray clipboardTool(const QString& tool, const QStringList& args, const QByteArray& input = {})
    {
        QProcess p;
        p.start(tool, args);
        p.write(input);
        p.closeWriteChannel();
        QByteArray out;
        TestSupport::waitUntil([&] {
            out += p.readAllStandardOutput();
            return p.state() == QProcess::NotRunning;
        }, 10000);
        return out + p.readAllStandardOutput();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(sway_.start({u"input type:keyboard xkb_layout %1"_s.arg(QStringLiteral(TOLVANE_TEST_LAYOUT)),
                              SwaySession::recordingTerminal()}),
                 QString());
        qputenv("WAYLAND_DISPLAY", sway_.waylandDisplay().toLocal8Bit());
        qputenv("DISPLAY", sway_.x11Display().toLocal8Bit());
        observer_ = std::make_unique<WaylandConnection>();
        QString error;
        QVERIFY2(observer_->open(&error), qPrintable(error));
        QVERIFY2(TestSupport::waitUntil([&] { return observer_->activeAppId() == u"foot"_s && QFile::exists(SwaySession::terminalOutput()); }, 20000),
                 "foot did not get the focus");
        injector_ = std::make_unique<WaylandTextInjector>([](QString* error) {
            *error = u"no uinput here"_s;
            return nullptr;
        });
        // sway's seat has a keyboard only from now on; foot asks for it a moment later.
        QVERIFY2(TestSupport::waitUntil([&] {
                     injector_->insertText(u"."_s);
                     return TestSupport::waitUntil([] { return !terminalBytes().isEmpty(); }, 300);
                 }, 10000),
                 "foot never got a key");
        QCOMPARE(injector_->description(),
                 u"typing through zwp_virtual_keyboard_v1 with Tolvane's own keymap; pasting through "
                 "zwlr_data_control_manager_v1; terminals told by the active window's app id (zwlr_foreign_toplevel_manager_v1)"_s);
    }

    void cleanupTestCase()
    {
        injector_.reset();
        observer_.reset();
        sway_.stop();
    }

    // Each text then BackSpace and Return, which the terminal sends as DEL and CR (the tty makes it LF).
    void typesExactly_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("ascii") << u"Hello, World! ~`|{}[]<>^ 0123 y z @"_s;
        QTest::newRow("accents") << u"Grüße, café, naïve, Ærø — 10 €"_s;
        QTest::newRow("emoji") << u"😀 👍🏽 🎉"_s;
        QTest::newRow("chinese") << u"你好，世界"_s;
        QTest::newRow("tab") << u"one\ttwo"_s;
    }
    void typesExactly()
    {
        QFETCH(QString, text);
        const qsizetype before = terminalBytes().size();
        QVERIFY(injector_->insertText(text));
        injector_->deleteBackward(1);
        injector_->pressReturn();
        QVERIFY(received(before, text.toUtf8() + "\x7f\n"));
    }

    void pastesWithCtrlShiftVAndRestoresTheClipboard()
    {
        // An image on the clipboard, larger than a pipe holds at once.
        const QByteArray png = ClipboardClient::noisePng(160);
        clipboardTool(u"wl-copy"_s, {u"--type"_s, u"image/png"_s}, png);
        QVERIFY(TestSupport::waitUntil([&] { return clipboardTool(u"wl-paste"_s, {u"--list-types"_s}).contains("image/png"); }));

        QString text;
        while (text.size() < 600)
            text += u"A long dictation with ümlauts and 😀 emoji, "_s;
        const qsizetype before = terminalBytes().size();
        QVERIFY(injector_->pasteViaClipboard(text));
        // foot pastes on Ctrl+Shift+V only: Ctrl+V would have sent it ^V.
        QVERIFY(received(before, text.toUtf8()));
        QVERIFY(TestSupport::waitUntil([&] { return clipboardTool(u"wl-paste"_s, {u"--list-types"_s}).contains("image/png"); }));
        QCOMPARE(clipboardTool(u"wl-paste"_s, {u"--type"_s, u"image/png"_s}), png);
    }
};

QTEST_GUILESS_MAIN(WaylandTypingTest)
#include "WaylandTypingTest.moc"
