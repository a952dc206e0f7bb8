#include "keyboard/wayland/VirtualKeyboardTyper.h"

#include "keyboard/TextKeysyms.h"
#include "keyboard/wayland/WaylandConnection.h"

#include "virtual-keyboard-unstable-v1-client-protocol.h"

#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <thread>

std::unique_ptr<VirtualKeyboardTyper> VirtualKeyboardTyper::create(WaylandConnection& connection)
{
    if (!connection.virtualKeyboards() || !connection.seat())
        return nullptr;
    auto* keyboard = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(connection.virtualKeyboards(), connection.seat());
    std::unique_ptr<VirtualKeyboardTyper> typer(new VirtualKeyboardTyper(connection, keyboard));
    // A keymap from the start: the protocol refuses keys before one.
    if (!typer->useKeymapFor({}))
        return nullptr;
    // A lone Shift tap, which types nothing, makes it the seat's keyboard now: a compositor whose seat
    // had no keyboard before tells clients (which ask for theirs only then) before the first text.
    typer->press(XKB_KEY_Shift_L);
    if (!connection.roundtrip())
        return nullptr;
    return typer;
}

VirtualKeyboardTyper::VirtualKeyboardTyper(WaylandConnection& connection, zwp_virtual_keyboard_v1* keyboard)
    : connection_(connection), keyboard_(keyboard)
{
    clock_.start();
}

VirtualKeyboardTyper::~VirtualKeyboardTyper()
{
    if (!connection_.broken()) {
        zwp_virtual_keyboard_v1_destroy(keyboard_);
        connection_.flush();
    }
}

bool VirtualKeyboardTyper::useKeymapFor(const std::vector<unsigned long>& keysyms)
{
    if (keymap_ && keymap_->containsAll(keysyms))
        return true;
    // Keysyms of the keymap in use are kept when they still fit: live typing then types its words
    // without a new keymap each time.
    std::vector<unsigned long> wanted = keysyms;
    if (keymap_) {
        std::vector<unsigned long> merged(keymap_->keysyms().begin() + static_cast<long>(OwnKeymap::fixedKeysyms().size()),
                                          keymap_->keysyms().end());
        merged.insert(merged.end(), keysyms.begin(), keysyms.end());
        if (OwnKeymap::holding(merged))
            wanted = std::move(merged);
    }
    auto keymap = OwnKeymap::holding(wanted);
    if (!keymap)
        return false;
    const QByteArray text = keymap->text();
    const int fd = memfd_create("tolvane-keymap", MFD_CLOEXEC);
    if (fd < 0)
        return false;
    // The compositor maps size bytes and expects the text's terminating NUL among them.
    const bool written = write(fd, text.constData(), static_cast<size_t>(text.size()) + 1) == text.size() + 1;
    if (written)
        zwp_virtual_keyboard_v1_keymap(keyboard_, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd, static_cast<uint32_t>(text.size() + 1));
    close(fd);  // the request carries a copy
    if (written)
        keymap_ = std::move(keymap);
    return written;
}

void VirtualKeyboardTyper::key(unsigned xkbKeycode, bool press)
{
    zwp_virtual_keyboard_v1_key(keyboard_, static_cast<uint32_t>(clock_.elapsed()), xkbKeycode - 8,
                                press ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
}

void VirtualKeyboardTyper::press(unsigned long keysym)
{
    const auto kc = keymap_->keycode(keysym);
    if (!kc)
        return;
    key(*kc, true);
    key(*kc, false);
    if (++sinceSync_ >= keysPerBatch)
        sync();
}

bool VirtualKeyboardTyper::sync()
{
    sinceSync_ = 0;
    const bool ok = connection_.roundtrip();
    const qint64 dueNs = batchStartNs_ + qint64(keysPerBatch) * 1'000'000'000 / keysPerSecond;
    if (const qint64 waitNs = dueNs - clock_.nsecsElapsed(); waitNs > 0)
        std::this_thread::sleep_for(std::chrono::nanoseconds(waitNs));
    batchStartNs_ = clock_.nsecsElapsed();
    return ok;
}

WaylandTyper::Typed VirtualKeyboardTyper::type(const QString& text)
{
    const std::vector<unsigned long> keysyms = TextKeysyms::fromText(text);
    if (keysyms.empty() || connection_.broken())
        return Typed::failed;
    // Modifiers the user holds on a real keyboard belong to that keyboard; this one has none down.
    zwp_virtual_keyboard_v1_modifiers(keyboard_, 0, 0, 0, 0);
    for (const auto& run : OwnKeymap::runs(keysyms)) {
        if (!useKeymapFor(run))
            return Typed::failed;
        for (unsigned long ks : run)
            press(ks);
    }
    return connection_.flush() ? Typed::done : Typed::failed;
}

bool VirtualKeyboardTyper::tap(unsigned long keysym, int times)
{
    if (connection_.broken() || !keymap_)
        return false;
    for (int i = 0; i < times; ++i)
        press(keysym);
    return connection_.flush();
}

bool VirtualKeyboardTyper::pasteKeystroke(bool terminal)
{
    if (connection_.broken() || !keymap_)
        return false;
    zwp_virtual_keyboard_v1_modifiers(keyboard_, OwnKeymap::controlMask | (terminal ? OwnKeymap::shiftMask : 0), 0, 0, 0);
    press(XKB_KEY_v);
    zwp_virtual_keyboard_v1_modifiers(keyboard_, 0, 0, 0, 0);
    return connection_.flush();
}
