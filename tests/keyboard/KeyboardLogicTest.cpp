// The keyboard subsystem's decisions, without a display: key classification, the keysyms of text,
// the typing plan, terminal detection, Tolvane's own key events, and behaviour with no X server.
#include "keyboard/KeyClassifier.h"
#include "keyboard/SyntheticKeyLog.h"
#include "keyboard/TerminalClasses.h"
#include "keyboard/TextKeysyms.h"
#include "keyboard/TypingPlan.h"
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/TextInjector.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QTest>

#include <map>

namespace {
constexpr unsigned leftAlt = 64, rightAlt = 108, leftSuper = 133, letterA = 38, shiftL = 50;
bool isModifierKey(unsigned kc) { return kc == leftAlt || kc == rightAlt || kc == leftSuper || kc == shiftL || kc == 105; }

KeyCommand press(KeyClassifier& c, unsigned kc, unsigned activation)
{
    return c.handle(true, kc, activation, isModifierKey(kc));
}
KeyCommand release(KeyClassifier& c, unsigned kc, unsigned activation)
{
    return c.handle(false, kc, activation, isModifierKey(kc));
}

// A layout that has the ASCII letters, digits and punctuation on keys 10..., upper case with Shift.
std::optional<KeyStroke> asciiLayout(unsigned long ks)
{
    if (ks >= 'a' && ks <= 'z')
        return KeyStroke{static_cast<unsigned>(10 + ks - 'a'), false};
    if (ks >= 'A' && ks <= 'Z')
        return KeyStroke{static_cast<unsigned>(10 + ks - 'A'), true};
    if (ks == ' ')
        return KeyStroke{65, false};
    return std::nullopt;
}
}  // namespace

class KeyboardLogicTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void classifierFollowsTheDecisionTable()
    {
        for (const ActivationKey key : ActivationKeys::allCases) {
            const unsigned act = ActivationKeys::keyCode(key);
            if (act == 0)
                continue;
            KeyClassifier c;
            QCOMPARE(press(c, KeyClassifier::spaceKeycode, act), KeyCommand::anyKey);  // Space alone
            QCOMPARE(press(c, act, act), KeyCommand::optionDown);
            QVERIFY(c.isOptionDown());
            QCOMPARE(press(c, act, act), KeyCommand::none);  // auto-repeat of the held key
            QCOMPARE(press(c, KeyClassifier::spaceKeycode, act), KeyCommand::toggleChord);
            QCOMPARE(press(c, KeyClassifier::spaceKeycode, act), KeyCommand::toggleChord);  // repeats too
            QCOMPARE(release(c, KeyClassifier::spaceKeycode, act), KeyCommand::none);
            QCOMPARE(press(c, KeyClassifier::escapeKeycode, act), KeyCommand::escape);
            QCOMPARE(press(c, letterA, act), KeyCommand::anyKey);
            QCOMPARE(press(c, letterA, act), KeyCommand::anyKey);  // auto-repeat counts as key-downs
            QCOMPARE(press(c, KeyClassifier::returnKeycode, act), KeyCommand::anyKey);
            QCOMPARE(release(c, act, act), KeyCommand::optionUp);
            QVERIFY(!c.isOptionDown());
            QCOMPARE(release(c, act, act), KeyCommand::none);
            QCOMPARE(press(c, KeyClassifier::escapeKeycode, act), KeyCommand::escape);
        }
    }

    void otherModifiersAndFnNeverFire()
    {
        KeyClassifier c;
        // Right Alt is the activation key: Left Alt, Shift, Super are flag changes only.
        for (unsigned kc : {leftAlt, shiftL, leftSuper}) {
            QCOMPARE(press(c, kc, rightAlt), KeyCommand::none);
            QCOMPARE(release(c, kc, rightAlt), KeyCommand::none);
        }
        QVERIFY(!c.isOptionDown());
        // Fn has no keycode on X11; not even a key reported as 0 matches it.
        const unsigned fn = ActivationKeys::keyCode(ActivationKey::fn);
        QCOMPARE(fn, 0u);
        QCOMPARE(c.handle(true, 0, fn, false), KeyCommand::anyKey);
        QVERIFY(!c.isOptionDown());
        // The activation key changing while held: the old key's release no longer ends anything.
        QCOMPARE(press(c, leftAlt, leftAlt), KeyCommand::optionDown);
        QCOMPARE(release(c, leftAlt, rightAlt), KeyCommand::none);
        QVERIFY(c.isOptionDown());
        QCOMPARE(release(c, rightAlt, rightAlt), KeyCommand::optionUp);
    }

    void textBecomesKeysyms()
    {
        using TextKeysyms::fromText;
        using V = std::vector<unsigned long>;
        QCOMPARE(fromText(QStringLiteral("aZ ~")), (V{'a', 'Z', ' ', '~'}));
        QCOMPARE(fromText(QStringLiteral("é€")), (V{0xe9, 0x010020ac}));
        QCOMPARE(fromText(QStringLiteral("😀中")), (V{0x0101f600, 0x01004e2d}));
        QCOMPARE(fromText(QStringLiteral("שלום")).front(), 0x010005e9UL);
        QCOMPARE(fromText(QStringLiteral("a\r\nb\nc\rd\te")),
                 (V{'a', TextKeysyms::returnKeysym, 'b', TextKeysyms::returnKeysym, 'c', TextKeysyms::returnKeysym, 'd',
                    TextKeysyms::tabKeysym, 'e'}));
        QString broken = QStringLiteral("a");
        broken.append(QChar(0xd83d)).append(QChar(0x0007)).append(QChar(0x0085)).append(QLatin1Char('b'));
        QCOMPARE(fromText(broken), (V{'a', 'b'}));
        QVERIFY(fromText(QString()).empty());
    }

    void planUsesLayoutKeysAndBatchesSpareKeycodes()
    {
        SpareKeyPool pool({200, 201, 202});
        const auto keysyms = TextKeysyms::fromText(QStringLiteral("Hi é😀é"));
        auto batches = planTyping(keysyms, asciiLayout, pool);
        QCOMPARE(batches.size(), size_t(1));
        QVERIFY(!batches[0].settle);
        // Two keysyms the layout lacks, put on two spare keycodes in one remapping.
        QCOMPARE(batches[0].remap.size(), size_t(2));
        const std::vector<KeyStroke> expected{{17, true}, {18, false}, {65, false}, {200, false}, {201, false}, {200, false}};
        QCOMPARE(batches[0].strokes, expected);

        // Next text: é is still on its keycode; two new keysyms, one free keycode: the least
        // recently used keycode (😀's) is reassigned after settling.
        batches = planTyping(TextKeysyms::fromText(QStringLiteral("éñü")), asciiLayout, pool);
        QCOMPARE(batches.size(), size_t(2));
        QVERIFY(!batches[0].settle);
        QCOMPARE(batches[0].remap, (std::vector<std::pair<unsigned, unsigned long>>{{202, 0xf1}}));
        QCOMPARE(batches[0].strokes, (std::vector<KeyStroke>{{200, false}, {202, false}}));
        QVERIFY(batches[1].settle);
        QCOMPARE(batches[1].remap, (std::vector<std::pair<unsigned, unsigned long>>{{201, 0xfc}}));
        QCOMPARE(batches[1].strokes, (std::vector<KeyStroke>{{201, false}}));

        // More distinct keysyms than keycodes: no keycode is remapped within the batch that presses it.
        SpareKeyPool small({200, 201});
        batches = planTyping(TextKeysyms::fromText(QStringLiteral("αβγδα")), asciiLayout, small);
        std::map<unsigned, unsigned long> mapping;
        QString typed;
        for (const TypingBatch& b : batches) {
            std::map<unsigned, unsigned long> pressedHere;
            for (const auto& [kc, ks] : b.remap)
                mapping[kc] = ks;
            for (const KeyStroke& s : b.strokes) {
                QVERIFY(!s.shift);
                pressedHere[s.keycode] = mapping.at(s.keycode);
                typed += QChar::fromUcs4(static_cast<char32_t>(mapping.at(s.keycode) - 0x01000000));
            }
            for (const auto& [kc, ks] : b.remap)
                QVERIFY(!b.settle ? true : pressedHere.at(kc) == ks);
        }
        QCOMPARE(typed, QStringLiteral("αβγδα"));
        QCOMPARE(batches.size(), size_t(3));
        QVERIFY(!batches[0].settle && batches[1].settle && batches[2].settle);

        // Without spare keycodes only what the layout has is typed.
        SpareKeyPool none;
        batches = planTyping(TextKeysyms::fromText(QStringLiteral("aé")), asciiLayout, none);
        QCOMPARE(batches.size(), size_t(1));
        QCOMPARE(batches[0].strokes, (std::vector<KeyStroke>{{10, false}}));
        QVERIFY(planTyping({}, asciiLayout, pool).empty());
    }

    void spareKeycodesAndTheNeutralKey()
    {
        const auto spares = spareKeycodes(
            8, 20, [](unsigned kc) { return kc % 3 != 0; }, [](unsigned kc) { return kc == 12; });
        QCOMPARE(spares, (std::vector<unsigned>{9, 15, 18}));
        QCOMPARE(typingPool(spares), (std::vector<unsigned>{9, 15}));
        QCOMPARE(tapNeutralKeycode(spares), std::optional<unsigned>(18));
        QVERIFY(!tapNeutralKeycode({}));
        QVERIFY(typingPool({}).empty());
    }

    void terminalsAreRecognisedByClass()
    {
        QVERIFY(TerminalClasses::isTerminal(QStringLiteral("xterm"), QStringLiteral("XTerm"), QString()));
        QVERIFY(TerminalClasses::isTerminal(QStringLiteral("gnome-terminal-server"), QStringLiteral("Gnome-terminal"), QString()));
        QVERIFY(TerminalClasses::isTerminal(QString(), QStringLiteral("Alacritty"), QString()));
        QVERIFY(!TerminalClasses::isTerminal(QStringLiteral("gedit"), QStringLiteral("Gedit"), QString()));
        QVERIFY(!TerminalClasses::isTerminal(QString(), QString(), QString()));
        QVERIFY(TerminalClasses::isTerminal(QStringLiteral("myterm"), QStringLiteral("MyTerm"), QStringLiteral(" foo , MYTERM ")));
        QVERIFY(!TerminalClasses::isTerminal(QStringLiteral("myterm"), QStringLiteral("MyTerm"), QStringLiteral("foo,,")));
    }

    void ownKeyEventsAreRecognisedInOrder()
    {
        SyntheticKeyLog log;
        const auto t0 = SyntheticKeyLog::Clock::now();
        log.expect(64, true, t0);  // a press the server drops (key already down on that device)
        log.expect(64, false, t0);
        log.expect(38, true, t0);
        log.expect(38, false, t0);
        QVERIFY(!log.consume(40, true, t0));  // someone else's key
        QVERIFY(log.consume(64, false, t0));  // the dropped press is skipped
        QVERIFY(!log.consume(64, true, t0));
        QVERIFY(log.consume(38, true, t0));
        QVERIFY(log.consume(38, false, t0));
        QVERIFY(!log.consume(38, false, t0));  // the user pressing the same key afterwards
        QVERIFY(log.empty());
        log.expect(50, true, t0);
        QVERIFY(!log.consume(50, true, t0 + SyntheticKeyLog::expiry + std::chrono::milliseconds(1)));
        QVERIFY(log.empty());
    }

    void withoutADisplayNothingWorksAndNothingCrashes()
    {
        QVERIFY(qgetenv("DISPLAY").isEmpty());
        TestSupport::LogMark mark;
        HotkeyManager monitor;
        QVERIFY(!monitor.start());
        QVERIFY(!monitor.start());  // may be called again
        monitor.stop();
        monitor.neutralizeModifierTap();
        QCOMPARE(mark.messages().count(QStringLiteral("HotkeyManager: tapCreate returned nil — Accessibility not granted yet.")), 2);

        TextInjector injector;
        injector.setHotkeyManager(&monitor);
        QVERIFY(!injector.insertText(QStringLiteral("hello")));
        QVERIFY(!injector.insertText(QString()));
        injector.deleteBackward(3);
        injector.pressReturn();
        QVERIFY(!injector.pasteViaClipboard(QStringLiteral("hello")));
        QVERIFY(mark.messages().count() == 2);  // the injector never logs
    }
};

QTEST_MAIN(KeyboardLogicTest)
#include "KeyboardLogicTest.moc"
