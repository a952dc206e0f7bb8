// What Tolvane types in a Wayland session, decided without a compositor: its own keymap for the
// virtual keyboard, and the keys a uinput keyboard presses under the user's layout (US, German,
// French AZERTY), compiled by libxkbcommon from their names.
#include "keyboard/LayoutKeys.h"
#include "keyboard/OwnKeymap.h"
#include "keyboard/TextKeysyms.h"
#include "keyboard/wayland/UinputTyper.h"

#include <QTest>

#include <xkbcommon/xkbcommon.h>

using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(std::vector<InputEvent>)

namespace {
struct Recorder final : InputEventWriter {
    std::vector<InputEvent>* out;
    explicit Recorder(std::vector<InputEvent>* o) : out(o) {}
    bool write(const std::vector<InputEvent>& events) override
    {
        out->insert(out->end(), events.begin(), events.end());
        return true;
    }
};

// The keymap text a compositor configured with this layout sends its clients.
QByteArray keymapText(const char* layout)
{
    xkb_context* ctx = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    const xkb_rule_names names{"evdev", "pc105", layout, "", nullptr};
    xkb_keymap* keymap = xkb_keymap_new_from_names(ctx, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
    char* text = keymap ? xkb_keymap_get_as_string(keymap, XKB_KEYMAP_FORMAT_TEXT_V1) : nullptr;
    const QByteArray out(text);
    free(text);
    xkb_keymap_unref(keymap);
    xkb_context_unref(ctx);
    return out;
}

// Press and release of `code` with SYN_REPORT after each, as the kernel reports keys.
std::vector<InputEvent> stroke(std::uint16_t code, std::vector<std::uint16_t> mods = {})
{
    std::vector<InputEvent> out;
    const auto key = [&](std::uint16_t c, int v) { out.insert(out.end(), {{1, c, v}, {0, 0, 0}}); };
    for (auto m : mods)
        key(m, 1);
    key(code, 1);
    key(code, 0);
    for (auto m = mods.rbegin(); m != mods.rend(); ++m)
        key(*m, 0);
    return out;
}
std::vector<InputEvent> operator+(std::vector<InputEvent> a, const std::vector<InputEvent>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// "+42 +30 -30 -42": key events only, so a failure shows which keys differ.
QString keys(const std::vector<InputEvent>& events)
{
    QStringList out;
    for (const InputEvent& e : events) {
        if (e.type == 1)
            out << (e.value ? u"+"_s : u"-"_s) + QString::number(e.code);
        else if (e.type != 0 || e.code != 0 || e.value != 0)
            out << u"?"_s;
    }
    return out.join(u' ');
}
constexpr std::uint16_t shift = 42, altGr = 100, ctrl = 29;
}  // namespace

class WaylandKeymapTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void ownKeymapTypesEveryCharacterUnmodified_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("ascii") << u"Hello, World! ~`|{} 0123"_s;
        QTest::newRow("accents") << u"Grüße, café, naïve, Ærø — 10 €"_s;
        QTest::newRow("emoji") << u"😀👍🏽🎉"_s;
        QTest::newRow("chinese") << u"你好，世界"_s;
    }
    void ownKeymapTypesEveryCharacterUnmodified()
    {
        QFETCH(QString, text);
        const auto keysyms = TextKeysyms::fromText(text);
        const auto own = OwnKeymap::holding(keysyms);
        QVERIFY(own);
        xkb_context* ctx = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
        xkb_keymap* keymap = xkb_keymap_new_from_string(ctx, own->text().constData(), XKB_KEYMAP_FORMAT_TEXT_V1,
                                                        XKB_KEYMAP_COMPILE_NO_FLAGS);
        QVERIFY2(keymap, own->text().constData());
        xkb_state* state = xkb_state_new(keymap);
        for (unsigned long ks : keysyms)
            QCOMPARE(xkb_state_key_get_one_sym(state, *own->keycode(ks)), static_cast<xkb_keysym_t>(ks));
        // The paste keystroke's modifiers have the masks the typer sends.
        xkb_state_update_key(state, *own->keycode(XKB_KEY_Control_L), XKB_KEY_DOWN);
        xkb_state_update_key(state, *own->keycode(XKB_KEY_Shift_L), XKB_KEY_DOWN);
        QCOMPARE(xkb_state_serialize_mods(state, XKB_STATE_MODS_DEPRESSED), OwnKeymap::controlMask | OwnKeymap::shiftMask);
        xkb_state_unref(state);
        xkb_keymap_unref(keymap);
        xkb_context_unref(ctx);
    }

    void longTextsAreCutIntoKeymapsThatFit()
    {
        std::vector<unsigned long> keysyms;
        for (unsigned long cp = 0x4e00; cp < 0x4e00 + 600; ++cp)
            keysyms.push_back(0x01000000UL + cp);
        keysyms.push_back(keysyms.front());  // a repeat is no new keysym
        const auto runs = OwnKeymap::runs(keysyms);
        std::vector<unsigned long> joined;
        for (const auto& run : runs) {
            QVERIFY(OwnKeymap::holding(run));
            joined.insert(joined.end(), run.begin(), run.end());
        }
        QCOMPARE(runs.size(), size_t(3));
        QVERIFY(joined == keysyms);
        QVERIFY(!OwnKeymap::holding(keysyms));
    }

    void uinputTyperWritesTheLayoutsKeys_data()
    {
        QTest::addColumn<QByteArray>("layout");
        QTest::addColumn<QString>("text");
        QTest::addColumn<std::vector<InputEvent>>("events");
        QTest::newRow("us plain and shifted") << "us"_ba << u"aA@"_s << stroke(30) + stroke(30, {shift}) + stroke(3, {shift});
        QTest::newRow("us line break") << "us"_ba << u"a\nb"_s << stroke(30) + stroke(28) + stroke(48);
        QTest::newRow("de y and z swapped") << "de"_ba << u"zy"_s << stroke(21) + stroke(44);
        QTest::newRow("de umlaut, AltGr") << "de"_ba << u"ü@€{"_s
                                          << stroke(26) + stroke(16, {altGr}) + stroke(18, {altGr}) + stroke(8, {altGr});
        QTest::newRow("fr AZERTY") << "fr"_ba << u"a1é@"_s
                                   << stroke(16) + stroke(2, {shift}) + stroke(3) + stroke(11, {altGr});
    }
    void uinputTyperWritesTheLayoutsKeys()
    {
        QFETCH(QByteArray, layout);
        QFETCH(QString, text);
        QFETCH(std::vector<InputEvent>, events);
        std::vector<InputEvent> written;
        UinputTyper typer(std::make_unique<Recorder>(&written), [&] { return keymapText(layout.constData()); });
        QCOMPARE(typer.type(text), WaylandTyper::Typed::done);
        QCOMPARE(keys(written), keys(events));
        QVERIFY(written == events);  // SYN_REPORT after each
    }

    void uinputTyperLeavesToPasteWhatTheLayoutLacks_data()
    {
        QTest::addColumn<QByteArray>("layout");
        QTest::addColumn<QString>("text");
        QTest::newRow("us accent") << "us"_ba << u"café"_s;
        QTest::newRow("de emoji") << "de"_ba << u"Grüße 😀"_s;
        QTest::newRow("fr chinese") << "fr"_ba << u"é你"_s;
        QTest::newRow("no keymap yet") << ""_ba << u"a"_s;
    }
    void uinputTyperLeavesToPasteWhatTheLayoutLacks()
    {
        QFETCH(QByteArray, layout);
        QFETCH(QString, text);
        std::vector<InputEvent> written;
        UinputTyper typer(std::make_unique<Recorder>(&written),
                          [&] { return layout.isEmpty() ? QByteArray() : keymapText(layout.constData()); });
        QCOMPARE(typer.type(text), WaylandTyper::Typed::notInLayout);
        QVERIFY(written.empty());
    }

    void uinputPasteKeystrokeAndEditingKeys()
    {
        std::vector<InputEvent> written;
        UinputTyper typer(std::make_unique<Recorder>(&written), [] { return keymapText("fr"); });
        QVERIFY(typer.pasteKeystroke(false));
        QVERIFY(typer.pasteKeystroke(true));
        QVERIFY(typer.tap(TextKeysyms::backSpaceKeysym, 2));
        QCOMPARE(keys(written), keys(stroke(47, {ctrl}) + stroke(47, {ctrl, shift}) + stroke(14) + stroke(14)));
    }
};

QTEST_GUILESS_MAIN(WaylandKeymapTest)
#include "WaylandKeymapTest.moc"
