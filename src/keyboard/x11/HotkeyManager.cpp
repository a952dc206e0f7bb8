#include "keyboard/x11/HotkeyManager.h"

#include "keyboard/TypingPlan.h"
#include "storage/Diagnostics.h"

#include <QSocketNotifier>
#include <QTimer>

// Xlib last: its macros (None, Bool, Status) clash with Qt's headers.
#include "keyboard/x11/X11Keyboard.h"
#include <X11/XKBlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/extensions/XTest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

namespace {
// Set by Xlib when a monitor connection breaks; Xlib then returns instead of ending the process.
void onConnectionBroken(Display*, void* flag) { *static_cast<bool*>(flag) = true; }
}  // namespace

struct HotkeyManager::Connection {
    Display* dpy = nullptr;
    Window root = 0;
    int xiOpcode = 0;
    bool hasXTest = false;
    bool broken = false;
    bool spaceGrabbed = false;
    unsigned grabbedMask = 0;
    std::set<int> xtestDevices;
    std::optional<unsigned> neutralKeycode;
    X11Keyboard::ModifierMap mods;

    ~Connection()
    {
        // A broken connection is left alone: Xlib marked it dead and closing it would only write.
        if (dpy && !broken)
            XCloseDisplay(dpy);
    }

    void findXTestDevices()
    {
        xtestDevices.clear();
        int count = 0;
        XIDeviceInfo* info = XIQueryDevice(dpy, XIAllDevices, &count);
        for (int i = 0; i < count; ++i) {
            if (info[i].use == XISlaveKeyboard && std::strstr(info[i].name, "XTEST"))
                xtestDevices.insert(info[i].deviceid);
        }
        if (info)
            XIFreeDeviceInfo(info);
    }

    void refreshKeyboard()
    {
        mods.refresh(dpy);
        // The neutral key stays the same unless something gave it symbols.
        const auto spares = X11Keyboard::spareKeycodes(dpy, mods);
        if (!neutralKeycode || std::find(spares.begin(), spares.end(), *neutralKeycode) == spares.end())
            neutralKeycode = tapNeutralKeycode(spares);
    }
};

HotkeyManager::HotkeyManager(QObject* parent) : QObject(parent)
{
    reconnect_ = new QTimer(this);
    reconnect_->setInterval(reconnectIntervalMs);
    connect(reconnect_, &QTimer::timeout, this, &HotkeyManager::tryReconnect);
}

HotkeyManager::~HotkeyManager() { stop(); }

void HotkeyManager::setActivationKey(ActivationKey key) { activationKey_ = key; }

int HotkeyManager::connectionFd() const { return x_ && !x_->broken ? ConnectionNumber(x_->dpy) : -1; }

bool HotkeyManager::start()
{
    stop();
    if (!open()) {
        Diagnostics::log(QStringLiteral("HotkeyManager: tapCreate returned nil — Accessibility not granted yet."));
        return false;
    }
    wanted_ = true;
    Diagnostics::log(QStringLiteral("HotkeyManager: event tap installed."));
    return true;
}

bool HotkeyManager::open()
{
    X11Keyboard::installErrorHandler();
    auto x = std::make_unique<Connection>();
    x->dpy = XOpenDisplay(nullptr);
    bool ok = x->dpy != nullptr;
    if (ok) {
        int event = 0, error = 0, major = 2, minor = 2;
        ok = XQueryExtension(x->dpy, "XInputExtension", &x->xiOpcode, &event, &error)
             && XIQueryVersion(x->dpy, &major, &minor) == Success && (major > 2 || minor >= 1);
        int tev = 0, terr = 0, tmaj = 0, tmin = 0;
        x->hasXTest = XTestQueryExtension(x->dpy, &tev, &terr, &tmaj, &tmin);
    }
    if (!ok)
        return false;
    XSetIOErrorExitHandler(x->dpy, onConnectionBroken, &x->broken);
    x->root = DefaultRootWindow(x->dpy);
    unsigned char mask[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(mask, XI_RawKeyPress);
    XISetMask(mask, XI_RawKeyRelease);
    XIEventMask em{XIAllMasterDevices, sizeof(mask), mask};
    XISelectEvents(x->dpy, x->root, &em, 1);
    x->findXTestDevices();
    x->refreshKeyboard();
    XSync(x->dpy, False);
    x_ = std::move(x);
    notifier_ = new QSocketNotifier(ConnectionNumber(x_->dpy), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &HotkeyManager::onReadable);
    // Events may already sit in Xlib's queue after the round trips above.
    QTimer::singleShot(0, this, &HotkeyManager::processPending);
    return true;
}

void HotkeyManager::stop()
{
    wanted_ = false;
    reconnect_->stop();
    delete notifier_;
    notifier_ = nullptr;
    if (x_ && !x_->broken) {
        grabSpace(false);
        XSync(x_->dpy, False);
    }
    x_.reset();
    synthetic_.clear();
}

void HotkeyManager::onReadable()
{
    processPending();
}

void HotkeyManager::processPending()
{
    if (!x_)
        return;
    while (!x_->broken && XPending(x_->dpy) > 0) {
        XEvent ev;
        XNextEvent(x_->dpy, &ev);
        if (ev.type == MappingNotify) {
            XRefreshKeyboardMapping(&ev.xmapping);
            x_->refreshKeyboard();
            continue;
        }
        if (ev.type != GenericEvent || ev.xcookie.extension != x_->xiOpcode)
            continue;  // the grabbed Space's own key events, among others
        if (!XGetEventData(x_->dpy, &ev.xcookie))
            continue;
        if (ev.xcookie.evtype == XI_RawKeyPress || ev.xcookie.evtype == XI_RawKeyRelease) {
            const auto* raw = static_cast<const XIRawEvent*>(ev.xcookie.data);
            handleKey(ev.xcookie.evtype == XI_RawKeyPress, static_cast<unsigned>(raw->detail), raw->sourceid);
        }
        XFreeEventData(x_->dpy, &ev.xcookie);
        if (!x_)
            return;
    }
    if (x_ && x_->broken)
        connectionLost();
}

void HotkeyManager::handleKey(bool press, unsigned keycode, int sourceId)
{
    if (x_->xtestDevices.contains(sourceId) && synthetic_.consume(keycode, press))
        return;  // Tolvane's own typing
    const unsigned activation = ActivationKeys::keyCode(activationKey_);
    const bool wasDown = classifier_.isOptionDown();
    const KeyCommand command = classifier_.handle(press, keycode, activation, x_->mods.isModifier(keycode));
    if (classifier_.isOptionDown() != wasDown)
        grabSpace(classifier_.isOptionDown());
    if (command == KeyCommand::optionDown)
        neutralizeModifierTap();
    if (command != KeyCommand::none)
        schedule(hotkeyCallback(command));
}

void HotkeyManager::schedule(std::function<void()> AbstractHotkeyManager::*callback)
{
    // The callback is read when the job runs, so one set in the meantime is the one called.
    QTimer::singleShot(0, this, [this, callback] {
        if (const auto& f = this->*callback)
            f();
    });
}

void HotkeyManager::grabSpace(bool grab)
{
    if (!x_ || x_->broken || grab == x_->spaceGrabbed)
        return;
    const unsigned activationMask = x_->mods.maskOf(ActivationKeys::keyCode(activationKey_));
    if (grab)
        x_->grabbedMask = activationMask;
    // Space alone is grabbed too: the state may read without the activation key's modifier, when the
    // injector released it to type plain text.
    std::set<unsigned> variants;
    for (unsigned base : {0u, x_->grabbedMask}) {
        for (unsigned locks : {0u, static_cast<unsigned>(LockMask), x_->mods.numLockMask(),
                               LockMask | x_->mods.numLockMask()})
            variants.insert(base | locks);
    }
    const KeyCode space = KeyClassifier::spaceKeycode;
    for (unsigned m : variants) {
        if (grab)
            XGrabKey(x_->dpy, space, m, x_->root, False, GrabModeAsync, GrabModeAsync);
        else
            XUngrabKey(x_->dpy, space, m, x_->root);
    }
    x_->spaceGrabbed = grab;
    // In place before anyone hears of the key going down.
    XSync(x_->dpy, False);
}

void HotkeyManager::neutralizeModifierTap()
{
    if (!x_ || x_->broken || !x_->hasXTest || !x_->neutralKeycode)
        return;
    const unsigned kc = *x_->neutralKeycode;
    synthetic_.expect(kc, true);
    synthetic_.expect(kc, false);
    XTestFakeKeyEvent(x_->dpy, kc, True, CurrentTime);
    XTestFakeKeyEvent(x_->dpy, kc, False, CurrentTime);
    XSync(x_->dpy, False);
}

void HotkeyManager::connectionLost()
{
    // Like a disabled event tap: no callback fires, and the monitor comes back by itself.
    delete notifier_;
    notifier_ = nullptr;
    x_.reset();
    synthetic_.clear();
    if (wanted_)
        reconnect_->start();
}

void HotkeyManager::tryReconnect()
{
    if (!wanted_ || open())
        reconnect_->stop();
}
