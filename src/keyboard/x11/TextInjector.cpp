#include "keyboard/x11/TextInjector.h"

#include "keyboard/KeyClassifier.h"
#include "keyboard/TerminalClasses.h"
#include "keyboard/TextKeysyms.h"
#include "keyboard/x11/HotkeyManager.h"
#include "keyboard/x11/X11Clipboard.h"
#include "storage/Preferences.h"

#include <QTimer>

// Xlib last: its macros (None, Bool, Status) clash with Qt's headers.
#include "keyboard/x11/X11Keyboard.h"
#include <X11/XKBlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>
#include <optional>
#include <thread>
#include <unordered_map>

namespace {
void onConnectionBroken(Display*, void* flag) { *static_cast<bool*>(flag) = true; }

// Frees Xlib's copy of the keyboard description.
struct XkbDeleter {
    void operator()(XkbDescPtr xkb) const { XkbFreeKeyboard(xkb, 0, True); }
};
using XkbDesc = std::unique_ptr<XkbDescRec, XkbDeleter>;

XkbDesc fetchKeymap(Display* dpy)
{
    return XkbDesc(XkbGetMap(dpy, XkbKeyTypesMask | XkbKeySymsMask, XkbUseCoreKbd));
}

// Sends the symbols of keycodes [lo, hi] as `xkb` holds them now, in one request.
void sendSymbols(Display* dpy, XkbDescPtr xkb, unsigned lo, unsigned hi)
{
    XkbMapChangesRec changes{};
    changes.changed = XkbKeySymsMask;
    changes.first_key_sym = static_cast<KeyCode>(lo);
    changes.num_key_syms = static_cast<unsigned char>(hi - lo + 1);
    XkbChangeMap(dpy, xkb, &changes);
}
}  // namespace

struct TextInjector::Connection {
    Display* dpy = nullptr;
    bool broken = false;
    X11Keyboard::ModifierMap mods;

    ~Connection()
    {
        if (dpy && !broken)
            XCloseDisplay(dpy);
    }

    void drain()
    {
        // This connection never waits for events; drop the mapping notices that pile up.
        while (!broken && XPending(dpy) > 0) {
            XEvent ev;
            XNextEvent(dpy, &ev);
        }
    }
};

TextInjector::TextInjector(QObject* parent) : QObject(parent)
{
    restoreTimer_ = new QTimer(this);
    restoreTimer_->setSingleShot(true);
    connect(restoreTimer_, &QTimer::timeout, this, &TextInjector::restoreMapping);
}

TextInjector::~TextInjector() { restoreMapping(); }

void TextInjector::setHotkeyManager(HotkeyManager* monitor) { monitor_ = monitor; }

bool TextInjector::ensureConnection()
{
    if (x_ && x_->broken) {
        x_.reset();
        pool_ = SpareKeyPool();  // whatever it held is gone with the server or another session
    }
    if (x_)
        return true;
    X11Keyboard::installErrorHandler();
    auto x = std::make_unique<Connection>();
    x->dpy = XOpenDisplay(nullptr);
    if (!x->dpy)
        return false;
    int ev = 0, err = 0, major = 0, minor = 0;
    int xkbOpcode = 0, xkbMajor = XkbMajorVersion, xkbMinor = XkbMinorVersion;
    if (!XTestQueryExtension(x->dpy, &ev, &err, &major, &minor)
        || !XkbQueryExtension(x->dpy, &xkbOpcode, &ev, &err, &xkbMajor, &xkbMinor))
        return false;
    XSetIOErrorExitHandler(x->dpy, onConnectionBroken, &x->broken);
    x_ = std::move(x);
    return true;
}

void TextInjector::key(unsigned keycode, bool press)
{
    if (monitor_)
        monitor_->syntheticKeys().expect(keycode, press);
    XTestFakeKeyEvent(x_->dpy, keycode, press ? True : False, CurrentTime);
}

void TextInjector::releaseHeldModifiers()
{
    // A press first, so the release also works for a key held on another device (the server ignores
    // a release from a device that never pressed it). The keys are not pressed again afterwards: if
    // the user let go meanwhile, that would leave a modifier stuck, and a release the user makes
    // later is harmless.
    x_->mods.refresh(x_->dpy);
    for (unsigned kc : x_->mods.heldKeys(x_->dpy)) {
        key(kc, true);
        key(kc, false);
    }
}

void TextInjector::tapKeysym(unsigned long keysym, int times)
{
    const KeyCode kc = XKeysymToKeycode(x_->dpy, keysym);
    if (kc == 0)
        return;
    releaseHeldModifiers();
    for (int i = 0; i < times; ++i) {
        key(kc, true);
        key(kc, false);
    }
    XFlush(x_->dpy);
}

void TextInjector::settle()
{
    XSync(x_->dpy, False);
    const auto wait = remapSettleBase + remapSettlePerStroke * strokesSinceSettle_;
    const auto until = lastStroke_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait);
    std::this_thread::sleep_until(until);
    strokesSinceSettle_ = 0;
}

bool TextInjector::insertText(const QString& text)
{
    if (text.isEmpty() || !ensureConnection())
        return false;
    const std::vector<unsigned long> keysyms = TextKeysyms::fromText(text);
    if (keysyms.empty())
        return false;
    Display* dpy = x_->dpy;
    x_->drain();
    XkbDesc xkb = fetchKeymap(dpy);
    XkbStateRec state{};
    if (!xkb || XkbGetState(dpy, XkbUseCoreKbd, &state) != Success)
        return false;
    releaseHeldModifiers();

    if (!pool_.anyAssigned())
        pool_ = SpareKeyPool(typingPool(X11Keyboard::spareKeycodes(dpy, x_->mods)));
    // A spare keycode someone else has given symbols since is no longer ours to use.
    auto& spare = pool_.entries();
    std::erase_if(spare, [&](const SpareKeyPool::Slot& s) {
        const int n = XkbKeyNumSyms(xkb.get(), s.keycode);
        return s.keysym == 0 ? n != 0 : (n != 1 || XkbKeySymsPtr(xkb.get(), s.keycode)[0] != s.keysym);
    });

    // Caps Lock is switched off while typing: clients would capitalise the spare keycodes' letters.
    const bool capsLocked = state.locked_mods & LockMask;
    if (capsLocked)
        XkbLockModifiers(dpy, XkbUseCoreKbd, LockMask, 0);
    // What each key of the current group types, alone or with Shift, under Num Lock as it is.
    const unsigned locks = state.locked_mods & x_->mods.numLockMask();
    const KeyCode shiftKey = XKeysymToKeycode(dpy, XK_Shift_L);
    std::unordered_map<unsigned long, KeyStroke> layout;
    const bool spaceGrabbed = monitor_ && monitor_->isOptionDown();
    for (const bool shift : {false, true}) {
        if (shift && shiftKey == 0)
            break;
        for (unsigned kc = xkb->min_key_code; kc <= xkb->max_key_code; ++kc) {
            // While the monitor holds its grab of Space, a Space typed there would be swallowed:
            // a spare keycode carries it instead.
            if (x_->mods.isModifier(kc) || (spaceGrabbed && kc == KeyClassifier::spaceKeycode)
                || std::any_of(spare.begin(), spare.end(), [kc](const auto& s) { return s.keycode == kc; }))
                continue;
            unsigned int consumed = 0;
            KeySym ks = NoSymbol;
            const unsigned mods = XkbBuildCoreState(locks | (shift ? ShiftMask : 0), state.group);
            if (XkbTranslateKeyCode(xkb.get(), static_cast<KeyCode>(kc), mods, &consumed, &ks) && ks != NoSymbol)
                layout.try_emplace(ks, KeyStroke{kc, shift});
        }
    }
    const LayoutLookup lookup = [&](unsigned long ks) -> std::optional<KeyStroke> {
        const auto it = layout.find(ks);
        return it == layout.end() ? std::nullopt : std::optional<KeyStroke>(it->second);
    };

    SpareKeyPool lent = pool_;  // taken on only if the text is typed
    const auto plan = planTyping(keysyms, lookup, lent);
    // More characters the layout lacks than keycodes to lend them: typing would give a keycode a
    // new symbol while the application may not yet have read the keys pressed under the old one,
    // and a busy application then shows other characters. No wait is long enough for every
    // application; a paste is exact.
    if (std::any_of(plan.begin(), plan.end(), [](const TypingBatch& b) { return b.settle; })) {
        if (capsLocked)
            XkbLockModifiers(dpy, XkbUseCoreKbd, LockMask, LockMask);
        return pasteViaClipboard(text);
    }
    pool_ = std::move(lent);
    restoreTimer_->stop();
    bool posted = false;
    bool shiftDown = false;
    for (const TypingBatch& batch : plan) {
        if (batch.settle)
            settle();
        if (!batch.remap.empty()) {
            unsigned lo = 255, hi = 0;
            for (const auto& [kc, ks] : batch.remap) {
                KeySym* syms = XkbResizeKeySyms(xkb.get(), static_cast<int>(kc), 1);
                if (!syms)
                    continue;
                syms[0] = ks;
                XkbSymMapPtr map = &xkb->map->key_sym_map[kc];
                map->kt_index[0] = XkbOneLevelIndex;
                map->group_info = XkbSetNumGroups(0, 1);
                map->width = 1;
                lo = std::min(lo, kc);
                hi = std::max(hi, kc);
            }
            if (lo <= hi)
                sendSymbols(dpy, xkb.get(), lo, hi);
        }
        for (const KeyStroke& s : batch.strokes) {
            if (s.shift != shiftDown) {
                key(shiftKey, s.shift);
                shiftDown = s.shift;
            }
            key(s.keycode, true);
            key(s.keycode, false);
            posted = true;
            ++strokesSinceSettle_;
        }
        lastStroke_ = std::chrono::steady_clock::now();
    }
    if (shiftDown)
        key(shiftKey, false);
    if (capsLocked)
        XkbLockModifiers(dpy, XkbUseCoreKbd, LockMask, LockMask);
    XFlush(dpy);
    lastStroke_ = std::chrono::steady_clock::now();
    if (pool_.anyAssigned()) {
        const auto backlog = std::chrono::duration_cast<std::chrono::milliseconds>(remapSettlePerStroke * strokesSinceSettle_);
        restoreTimer_->start(mappingRestoreDelay + backlog);
    }
    return posted;
}

void TextInjector::restoreMapping()
{
    restoreTimer_->stop();
    if (!pool_.anyAssigned())
        return;
    if (!x_ || x_->broken) {
        pool_.releaseAll();
        return;
    }
    Display* dpy = x_->dpy;
    XkbDesc xkb = fetchKeymap(dpy);
    if (xkb) {
        unsigned lo = 255, hi = 0;
        for (const auto& s : pool_.entries()) {
            if (s.keysym == 0)
                continue;
            XkbSymMapPtr map = &xkb->map->key_sym_map[s.keycode];
            map->group_info = XkbSetNumGroups(map->group_info, 0);
            map->width = 0;
            lo = std::min(lo, s.keycode);
            hi = std::max(hi, s.keycode);
        }
        if (lo <= hi)
            sendSymbols(dpy, xkb.get(), lo, hi);
        XSync(dpy, False);
        x_->drain();
    }
    pool_.releaseAll();
}

void TextInjector::deleteBackward(int count)
{
    if (count < 1 || !ensureConnection())
        return;
    tapKeysym(XK_BackSpace, count);
}

void TextInjector::pressReturn()
{
    if (!ensureConnection())
        return;
    tapKeysym(XK_Return, 1);
}

bool TextInjector::focusedWindowIsTerminal()
{
    Display* dpy = x_->dpy;
    Window w = None;
    int revert = 0;
    XGetInputFocus(dpy, &w, &revert);
    const Window root = DefaultRootWindow(dpy);
    const QString extra = Preferences::shared().value(Settings::terminalClasses);
    // The focus may sit on a child of the window that carries WM_CLASS: walk up to the root.
    for (int depth = 0; w != None && w != PointerRoot && w != root && depth < 16; ++depth) {
        XClassHint hint{};
        if (XGetClassHint(dpy, w, &hint)) {
            const QString name = QString::fromLocal8Bit(hint.res_name ? hint.res_name : "");
            const QString cls = QString::fromLocal8Bit(hint.res_class ? hint.res_class : "");
            if (hint.res_name)
                XFree(hint.res_name);
            if (hint.res_class)
                XFree(hint.res_class);
            return TerminalClasses::isTerminal(name, cls, extra);
        }
        Window rootRet = None, parent = None;
        Window* children = nullptr;
        unsigned n = 0;
        if (!XQueryTree(dpy, w, &rootRet, &parent, &children, &n))
            break;
        if (children)
            XFree(children);
        w = parent;
    }
    return false;
}

bool TextInjector::pasteViaClipboard(const QString& text)
{
    if (!ensureConnection())
        return false;
    Display* dpy = x_->dpy;
    const KeyCode ctrl = XKeysymToKeycode(dpy, XK_Control_L);
    const KeyCode v = XKeysymToKeycode(dpy, XK_v);
    const KeyCode shift = XKeysymToKeycode(dpy, XK_Shift_L);
    const bool terminal = focusedWindowIsTerminal();
    if (ctrl == 0 || v == 0 || (terminal && shift == 0))
        return false;
    // What this process's own windows copied lives in Qt, which answers on this thread: read it here.
    std::optional<ClipboardContent> own = ClipboardContent::ownedByThisProcess();
    if (!clipboard_)
        clipboard_ = std::make_unique<X11Clipboard>();
    if (!clipboard_->setForPaste(text, std::move(own)))
        return false;
    releaseHeldModifiers();
    clipboard_->keystrokeSending();
    key(ctrl, true);
    if (terminal)
        key(shift, true);
    key(v, true);
    key(v, false);
    if (terminal)
        key(shift, false);
    key(ctrl, false);
    XFlush(dpy);
    return true;
}
