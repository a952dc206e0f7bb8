// The injector against a real X server and a real client, under the layout this build of the test
// names (TOLVANE_TEST_LAYOUT): what the client receives must be exactly what was typed or pasted.
#include "support/RecordingClient.h"
#include "keyboard/x11/TextInjector.h"
#include "storage/Preferences.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QClipboard>
#include <QMimeData>
#include <QProcess>
#include <QTest>

#include <X11/keysym.h>

namespace {
QString arrived(const QString& typed)
{
    QString s = typed;
    s.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    return s;
}
}  // namespace

class TextInjectorTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(fingers_.ok());
        const QString layout = QStringLiteral(TOLVANE_TEST_LAYOUT);
        if (layout != QLatin1String("us")) {
            // This test has an X server of its own, so the layout change stays here.
            QCOMPARE(QProcess::execute(QStringLiteral("setxkbmap"), {layout}), 0);
        }
        QVERIFY(client_.start());
    }

    void typesEveryKindOfTextExactlyAndRestoresTheMapping()
    {
        const QByteArray before = fingers_.mapping();
        const QStringList samples = {
            QStringLiteral("中文输入测试，日本語のテキスト、한국어"),
            QStringLiteral("Hello, World! 0123456789 ~`@#$%^&*()_+-=[]{}|;:'\",.<>/?\\ yz YZ"),
            QStringLiteral("Grüße aus Köln: café, naïve, façade, Ærøskøbing, ĄĘŁŃŚŹŻ, ß €"),
            QStringLiteral("emoji 😀👍🎉 and 👩‍💻 done"),
            QStringLiteral("שלום עולם · مرحبا بالعالم"),
            QStringLiteral("line one\nline two\r\n\nend\tof text"),
            QStringLiteral("αβγδεζηθικλμνξοπρστυφχψω ΑΒΓΔ ¿¡ «» ‹› ‚„ “” ‘’ – — … ™ © ® ° ± × ÷"),
        };
        for (const QString& sample : samples) {
            QVERIFY(client_.clear());
            QVERIFY(injector_.insertText(sample));
            const auto got = client_.waitFor([&](const auto& r) { return r.text.size() >= arrived(sample).size(); });
            QCOMPARE(got.text, arrived(sample));
        }
        QVERIFY(!injector_.insertText(QString()));
        QVERIFY(TestSupport::waitUntil([&] { return injector_.mappingRestored(); }));
        QCOMPARE(fingers_.mapping(), before);
    }

    void backspaceAndReturnArriveAsKeyPresses()
    {
        QVERIFY(client_.clear());
        QVERIFY(injector_.insertText(QStringLiteral("abcé")));
        injector_.deleteBackward(2);
        injector_.pressReturn();
        QVERIFY(injector_.insertText(QStringLiteral("#")));  // same connection, so it arrives last
        auto got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('#')); });
        QCOMPARE(got.text, QStringLiteral("ab\n#"));
        QCOMPARE(got.backspaces, 2);

        QVERIFY(injector_.insertText(QStringLiteral("ñé")));
        injector_.deleteBackward(1);
        injector_.deleteBackward(0);
        injector_.deleteBackward(-3);
        QVERIFY(injector_.insertText(QStringLiteral("!")));
        got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('!')); });
        QCOMPARE(got.text, QStringLiteral("ab\n#ñ!"));
        QCOMPARE(got.backspaces, 3);
    }

    void pasteLeavesTextInClientAndRestoresClipboard()
    {
        QClipboard* clipboard = QGuiApplication::clipboard();
        for (const bool hadText : {true, false}) {
            QVERIFY(client_.clear());
            clipboard->clear();
            if (hadText)
                clipboard->setText(QStringLiteral("old clipboard text"));
            const QString text = QStringLiteral("Pasted: ünïcödé 😀 中文\nsecond line");
            QVERIFY(injector_.pasteViaClipboard(text));
            QCOMPARE(clipboard->text(), text);
            const auto got = client_.waitFor([&](const auto& r) { return r.text == text; });
            QCOMPARE(got.text, text);
            QVERIFY(TestSupport::waitUntil([&] { return clipboard->text() != text; }));
            if (hadText) {
                QCOMPARE(clipboard->text(), QStringLiteral("old clipboard text"));
            } else {
                const QMimeData* data = clipboard->mimeData();
                QVERIFY(!data || !data->hasText() || data->text().isEmpty());
            }
        }
    }

    void terminalsGetCtrlShiftV()
    {
        Preferences::shared().setValue(Settings::terminalClasses, QStringLiteral("someterm, tolvane_recording_client"));
        QVERIFY(client_.clear());
        QVERIFY(injector_.pasteViaClipboard(QStringLiteral("for a terminal")));
        QVERIFY(injector_.insertText(QStringLiteral("#")));
        const auto got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('#')); });
        QCOMPARE(got.terminalPastes, 1);
        QCOMPARE(got.text, QStringLiteral("#"));  // the field itself does not paste on Ctrl+Shift+V
        Preferences::shared().setValue(Settings::terminalClasses, QString());
    }

    // A held modifier or Caps Lock must change neither the text nor the Backspace.
    void typingUnderAHeldModifierOrCapsLockArrivesPlain()
    {
        for (const unsigned long modifier : {XK_Control_L, XK_Shift_L, XK_Alt_L, XK_Super_L, XK_Control_R, XK_Caps_Lock}) {
            const unsigned kc = fingers_.keycodeOf(modifier);
            QVERIFY(kc != 0);
            QVERIFY(client_.clear());
            const bool lock = modifier == XK_Caps_Lock;
            lock ? fingers_.tap(kc) : fingers_.press(kc);
            QCOMPARE(fingers_.capsLocked(), lock);
            const QString text = QStringLiteral("Plain Words, é É ñ 😀 ΑΒγδ ");
            QVERIFY(injector_.insertText(text));
            injector_.deleteBackward(1);
            QVERIFY(injector_.insertText(QStringLiteral("#")));
            const auto got = client_.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('#')); });
            QCOMPARE(fingers_.capsLocked(), lock);  // a lock stays on afterwards
            lock ? fingers_.tap(kc) : fingers_.release(kc);
            QCOMPARE(got.text, text.chopped(1) + QLatin1Char('#'));
        }
    }

private:
    RecordingClient client_;
    Fingers fingers_;
    TextInjector injector_;
};

QTEST_MAIN(TextInjectorTest)
#include "TextInjectorTest.moc"
