// The Wayland session's key monitor, read from keyboards that are named pipes (TOLVANE_INPUT_DEVICES),
// with a recording stand-in for the virtual keyboard on /dev/uinput: the callbacks it fires and the
// exact events it would write to the desktop.
#include "keyboard/EvdevKeyRouter.h"
#include "keyboard/evdev/EvdevHotkeyManager.h"
#include "keyboard/evdev/InputAccess.h"
#include "support/KeyPipe.h"
#include "support/Sound.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTest>

#include <linux/input.h>

#include <mutex>

using namespace Qt::StringLiterals;

namespace {

// What the virtual keyboard would write: "+56" down, "-56" up, "*56" repeat, "|" SYN_REPORT.
struct Written {
    std::mutex mutex;
    QString text;
};
struct RecordingWriter final : InputEventWriter {
    Written& out;
    explicit RecordingWriter(Written& o) : out(o) {}
    bool write(const std::vector<InputEvent>& events) override
    {
        const std::lock_guard lock(out.mutex);
        for (const InputEvent& e : events)
            out.text += e.type == EV_SYN ? u"|"_s : (out.text.isEmpty() ? u""_s : u" "_s) + u"-+*"_s[e.value] + QString::number(e.code);
        return true;
    }
};

constexpr std::uint16_t sentinel = KEY_F12;  // pressed last: once its callback arrived, all did

}  // namespace

class EvdevKeyboardTest : public QObject {
    Q_OBJECT
    std::unique_ptr<KeyPipe> pipes_[2];

private Q_SLOTS:
    void initTestCase()
    {
        for (int i = 0; i < 2; ++i)
            pipes_[i] = std::make_unique<KeyPipe>(AudioTest::sandboxPath(u"keyboard%1"_s.arg(i + 1)));
        qputenv("TOLVANE_INPUT_DEVICES", (pipes_[0]->path() + u':' + pipes_[1]->path()).toLocal8Bit());
    }

    void cleanup()
    {
        for (auto& pipe : pipes_)
            pipe->unplug();
    }

    // "1+56" keyboard 1 presses code 56, "1-56" releases it, "1*56" auto-repeats it; "1/56" presses it
    // after a scan code, the records cut in two; "1x" unplugs keyboard 1 (it comes back as a new
    // keyboard); "@rightOption" changes the activation key.
    void keysBecomeCallbacksAndForwardedEvents_data()
    {
        QTest::addColumn<bool>("virtualKeyboard");
        QTest::addColumn<QString>("script");
        QTest::addColumn<QString>("callbacks");
        QTest::addColumn<QString>("written");
        const QString tap = u"+56| +240| -240|"_s;  // Left Alt down, then the neutral key's tap
        QTest::newRow("key down and up, records cut in two") << true << u"1/56 1-56"_s << u"down up"_s << tap + u" -56|"_s;
        QTest::newRow("auto-repeat of the held key") << true << u"1+56 1*56 1*56 1-56"_s << u"down up"_s << tap + u" *56| *56| -56|"_s;
        QTest::newRow("chord per Space press and repeat, never written")
            << true << u"1+56 1+57 1*57 1*57 1-57 1+57 1-57 1-56"_s << u"down chord chord chord chord up"_s << tap + u" -56|"_s;
        QTest::newRow("Space released after the key") << true << u"1+56 1+57 1-56 1-57 1+57 1-57"_s << u"down chord up key"_s
                                                      << tap + u" -56| +57| -57|"_s;
        QTest::newRow("Esc is not any key; Space alone is") << true << u"1+1 1-1 1+30 1*30 1-30 1+57 1-57"_s << u"esc key key key"_s
                                                            << u"+1| -1| +30| *30| -30| +57| -57|"_s;
        QTest::newRow("the other side's modifier and Shift") << true << u"1+100 1-100 1+56 1+100 1+42 1-42 1-100 1-56"_s << u"down up"_s
                                                             << u"+100| -100| "_s + tap + u" +100| +42| -42| -100| -56|"_s;
        QTest::newRow("Right Alt as the key") << true << u"@rightOption 1+56 1-56 1+100 1-100"_s << u"down up"_s
                                              << u"+56| -56| +100| +240| -240| -100|"_s;
        QTest::newRow("activation key changed while held") << true << u"1+56 @rightOption 1-56 1+100 1-100"_s << u"down up"_s
                                                           << tap + u" -56| +100| -100|"_s;
        QTest::newRow("chord from a second keyboard") << true << u"1+56 2+57 2-57 1-56"_s << u"down chord up"_s << tap + u" -56|"_s;
        QTest::newRow("key held on both: the last release counts") << true << u"1+56 2+56 1-56 2-56"_s << u"down up"_s
                                                                   << tap + u" -56|"_s;
        QTest::newRow("unplugged while the key is held") << true << u"1+56 1x 1+56 1-56"_s << u"down up down up"_s
                                                         << tap + u" -56| "_s + tap + u" -56|"_s;
        QTest::newRow("unplugged while the other holds it") << true << u"1+56 2+56 2+30 2x 1-56"_s << u"down key up"_s
                                                            << tap + u" +30| -30| -56|"_s;
        QTest::newRow("no virtual keyboard: callbacks only") << false << u"1+56 1+57 1-57 1-56"_s << u"down chord up"_s << QString();
    }
    void keysBecomeCallbacksAndForwardedEvents()
    {
        QFETCH(bool, virtualKeyboard);
        QFETCH(QString, script);
        QFETCH(QString, callbacks);
        QFETCH(QString, written);
        Written out;
        const TestSupport::LogMark mark;
        EvdevHotkeyManager monitor([&](QString* error) -> std::unique_ptr<InputEventWriter> {
            if (virtualKeyboard)
                return std::make_unique<RecordingWriter>(out);
            *error = u"/dev/uinput: Permission denied"_s;
            return nullptr;
        });
        QStringList got;
        monitor.onOptionDown = [&] { got << u"down"_s; };
        monitor.onOptionUp = [&] { got << u"up"_s; };
        monitor.onToggleChord = [&] { got << u"chord"_s; };
        monitor.onEscape = [&] { got << u"esc"_s; };
        monitor.onAnyKey = [&] { got << u"key"_s; };
        QVERIFY(monitor.start());
        QVERIFY(pipes_[0]->connect() && pipes_[1]->connect());
        for (const QString& step : script.split(u' ')) {
            if (step.startsWith(u'@')) {
                monitor.setActivationKey(*ActivationKeys::fromRawValue(step.mid(1)));
                continue;
            }
            KeyPipe& pipe = *pipes_[step.at(0).digitValue() - 1];
            if (step.at(1) == u'x') {
                const TestSupport::LogMark unplugged;
                pipe.unplug();
                QVERIFY(unplugged.waitFor(u"hotkey: input device gone: "_s + pipe.path()));
                QVERIFY(TestSupport::waitUntil([&] { return pipe.connect(); }));  // as soon as it is read again
                continue;
            }
            const auto code = std::uint16_t(step.mid(2).toUInt());
            const QByteArray press = KeyPipe::record(EV_MSC, MSC_SCAN, code) + KeyPipe::record(EV_KEY, code, 1)
                                     + KeyPipe::record(EV_SYN, SYN_REPORT, 0);
            QVERIFY(step.at(1) == u'/' ? pipe.raw(press.left(30)) && pipe.raw(press.mid(30))
                                       : pipe.key(code, int(u"-+*"_s.indexOf(step.at(1)))));
        }
        QVERIFY(pipes_[0]->press(sentinel) && pipes_[0]->release(sentinel));
        const QStringList expected = (callbacks + u" key"_s).split(u' ');
        QVERIFY(TestSupport::waitUntil([&] { return got.size() >= expected.size(); }));
        QCOMPARE(got, expected);
        const QString sentinelWritten = virtualKeyboard ? u"+88| -88|"_s : QString();
        const std::lock_guard lock(out.mutex);
        QCOMPARE(out.text, written.isEmpty() ? sentinelWritten : written + u' ' + sentinelWritten);
        QCOMPARE(mark.messages().contains(u"hotkey: no virtual keyboard (/dev/uinput: Permission denied); "
                                          "the chord's Space also reaches the application"_s),
                 !virtualKeyboard);
    }

    void settingsSayWhenTheChordsSpaceGoesThrough()
    {
        qunsetenv("WAYLAND_DISPLAY");
        qunsetenv("XDG_SESSION_TYPE");
        QCOMPARE(InputAccess::chordSpaceNotice(), QString());  // X11 swallows it with a grab
        qputenv("XDG_SESSION_TYPE", "wayland");
        const QString notice = InputAccess::chordSpaceNotice();
        QCOMPARE(notice.isEmpty(), InputAccess::canWriteUinput());
        if (notice.isEmpty() || !notice.contains(u" | sudo tee "_s))
            return;
        // Where the rule is not installed, the command writes the very rule Tolvane ships.
        QFile shipped(QStringLiteral(TOLVANE_UDEV_RULE));
        QVERIFY(shipped.open(QIODevice::ReadOnly));
        const QString rule = QString::fromUtf8(shipped.readAll()).trimmed().split(u'\n').last();
        QVERIFY2(notice.contains(u"echo '"_s + rule + u"' | sudo tee /etc/udev/rules.d/60-tolvane-uinput.rules"_s), qPrintable(notice));
    }

    void aFileThatCannotBeReadMeansNoKeys()
    {
        qputenv("TOLVANE_INPUT_DEVICES", "/nonexistent/keyboard");
        const TestSupport::LogMark mark;
        EvdevHotkeyManager monitor([](QString*) { return nullptr; });
        QVERIFY(!monitor.start());
        QVERIFY(mark.messages().contains(u"hotkey: cannot read /nonexistent/keyboard: No such file or directory"_s));
        QVERIFY(mark.messages().contains(u"HotkeyManager: tapCreate returned nil — Accessibility not granted yet."_s));
    }
};

QTEST_MAIN(EvdevKeyboardTest)
#include "EvdevKeyboardTest.moc"
