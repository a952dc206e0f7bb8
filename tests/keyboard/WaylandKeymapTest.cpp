// What Tolvane types in a Wayland session, decided without a compositor: how its own keymap for the
// virtual keyboard is cut, and the keys a uinput keyboard presses under the user's layout (US,
// German, French AZERTY), compiled by libxkbcommon from their names. That its own keymap types every
// character is seen in foot under sway (WaylandTypingTest).
#include "keyboard/OwnKeymap.h"
#include "keyboard/TextKeysyms.h"
#include "keyboard/wayland/UinputTyper.h"

#include <QTest>

#include <xkbcommon/xkbcommon.h>

using namespace Qt::StringLiterals;

namespace {
// What would be written, each event followed by a space: "+30" key down, "-30" up, "|" SYN_REPORT.
struct Recorder final : InputEventWriter {
    QString* out;
    explicit Recorder(QString* o) : out(o) {}
    bool write(const std::vector<InputEvent>& events) override
    {
        for (const InputEvent& e : events)
            *out += (e == InputEvent{} ? u"|"_s : e.type == 1 && e.value < 2 ? u"-+"_s[e.value] + QString::number(e.code) : u"?"_s) + u' ';
        return true;
    }
};

// Press and release of `code` inside `mods`, with SYN_REPORT after each event as the kernel reports keys.
QString stroke(int code, std::initializer_list<int> mods = {})
{
    QString down, up;
    for (int m : mods) {
        down += u"+%1 | "_s.arg(m);
        up.prepend(u"-%1 | "_s.arg(m));
    }
    return down + u"+%1 | -%1 | "_s.arg(code) + up;
}
constexpr int shift = 42, altGr = 100, ctrl = 29;

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
}  // namespace

class WaylandKeymapTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
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

    // A text the layout lacks a character of (or any text before the keymap came) is left to the
    // paste, nothing written.
    void uinputTyperWritesTheLayoutsKeys_data()
    {
        QTest::addColumn<QByteArray>("layout");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("keys");  // null: not in the layout
        QTest::newRow("us plain and shifted") << "us"_ba << u"aA@"_s << stroke(30) + stroke(30, {shift}) + stroke(3, {shift});
        QTest::newRow("us line break") << "us"_ba << u"a\nb"_s << stroke(30) + stroke(28) + stroke(48);
        QTest::newRow("de y and z swapped") << "de"_ba << u"zy"_s << stroke(21) + stroke(44);
        QTest::newRow("de umlaut, AltGr") << "de"_ba << u"ü@€{"_s
                                          << stroke(26) + stroke(16, {altGr}) + stroke(18, {altGr}) + stroke(8, {altGr});
        QTest::newRow("fr AZERTY") << "fr"_ba << u"a1é@"_s << stroke(16) + stroke(2, {shift}) + stroke(3) + stroke(11, {altGr});
        QTest::newRow("us accent") << "us"_ba << u"café"_s << QString();
        QTest::newRow("de emoji") << "de"_ba << u"Grüße 😀"_s << QString();
        QTest::newRow("fr chinese") << "fr"_ba << u"é你"_s << QString();
        QTest::newRow("no keymap yet") << ""_ba << u"a"_s << QString();
    }
    void uinputTyperWritesTheLayoutsKeys()
    {
        QFETCH(QByteArray, layout);
        QFETCH(QString, text);
        QFETCH(QString, keys);
        QString written;
        UinputTyper typer(std::make_unique<Recorder>(&written),
                          [&] { return layout.isEmpty() ? QByteArray() : keymapText(layout.constData()); });
        QCOMPARE(typer.type(text), keys.isNull() ? WaylandTyper::Typed::notInLayout : WaylandTyper::Typed::done);
        QCOMPARE(written, keys);
    }

    void uinputPasteKeystrokeAndEditingKeys()
    {
        QString written;
        UinputTyper typer(std::make_unique<Recorder>(&written), [] { return keymapText("fr"); });
        QVERIFY(typer.pasteKeystroke(false) && typer.pasteKeystroke(true) && typer.tap(TextKeysyms::backSpaceKeysym, 2));
        QCOMPARE(written, stroke(47, {ctrl}) + stroke(47, {ctrl, shift}) + stroke(14) + stroke(14));
    }
};

QTEST_GUILESS_MAIN(WaylandKeymapTest)
#include "WaylandKeymapTest.moc"
