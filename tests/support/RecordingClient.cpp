#include "support/RecordingClient.h"

#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

namespace {
int ignoreXError(Display*, XErrorEvent*) { return 0; }
}  // namespace

RecordingClient::RecordingClient()
{
    process_.setProgram(QStringLiteral(TOLVANE_RECORDING_CLIENT));
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    connect(&process_, &QProcess::readyReadStandardOutput, this,
            [this] { output_.append(process_.readAllStandardOutput()); });
}

RecordingClient::~RecordingClient()
{
    if (process_.state() != QProcess::NotRunning) {
        process_.write("quit\n");
        if (!process_.waitForFinished(3000)) {
            process_.kill();
            process_.waitForFinished(3000);
        }
    }
}

bool RecordingClient::start()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    process_.setProcessEnvironment(env);
    process_.start();
    if (!process_.waitForStarted(5000))
        return false;
    const bool ready = TestSupport::waitUntil([this] { return output_.contains('\n'); }, 10000);
    if (!ready || !output_.startsWith("ready "))
        return false;
    window_ = output_.mid(6, output_.indexOf('\n') - 6).trimmed().toULong();
    output_.clear();
    return window_ != 0 && focus();
}

bool RecordingClient::focus()
{
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy)
        return false;
    XSetErrorHandler(ignoreXError);
    // No window manager runs: the test sets the focus itself, once the window is viewable.
    bool viewable = false;
    for (int i = 0; i < 200 && !viewable; ++i) {
        XWindowAttributes a{};
        viewable = XGetWindowAttributes(dpy, window_, &a) && a.map_state == IsViewable;
        if (!viewable)
            TestSupport::waitUntil([] { return false; }, 25);
    }
    XSetInputFocus(dpy, window_, RevertToParent, CurrentTime);
    XSync(dpy, False);
    Window w = 0;
    int revert = 0;
    XGetInputFocus(dpy, &w, &revert);
    XCloseDisplay(dpy);
    return viewable && w == window_;
}

bool RecordingClient::command(const QByteArray& line, const QByteArray& reply, int timeoutMs)
{
    output_.clear();
    process_.write(line + '\n');
    return TestSupport::waitUntil([&] { return output_.contains(reply + '\n'); }, timeoutMs);
}

bool RecordingClient::clear() { return command("clear", "cleared"); }

bool RecordingClient::setPasteDelay(int ms) { return command("pasteDelay " + QByteArray::number(ms), "delayed"); }
bool RecordingClient::setKeyDelay(int ms) { return command("keyDelay " + QByteArray::number(ms), "delayed"); }

std::optional<RecordingClient::Received> RecordingClient::dump()
{
    const QString path = dir_.filePath(QStringLiteral("dump.json"));
    if (!command("dump " + path.toUtf8(), "dumped"))
        return std::nullopt;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject o = QJsonDocument::fromJson(f.readAll()).object();
    Received r;
    r.text = o.value(QStringLiteral("text")).toString();
    r.backspaces = o.value(QStringLiteral("backspaces")).toInt();
    r.spaces = o.value(QStringLiteral("spaces")).toInt();
    r.loneAltTaps = o.value(QStringLiteral("loneAltTaps")).toInt();
    r.terminalPastes = o.value(QStringLiteral("terminalPastes")).toInt();
    r.lastChangeUs = o.value(QStringLiteral("lastChangeUs")).toInteger();
    return r;
}

RecordingClient::Received RecordingClient::waitFor(const std::function<bool(const Received&)>& done, int timeoutMs)
{
    // A dump now and then, not back to back, so the client spends its time receiving keys.
    Received last;
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        if (const auto r = dump())
            last = *r;
        if (done(last) || clock.elapsed() > timeoutMs)
            return last;
        TestSupport::waitUntil([] { return false; }, pollIntervalMs);
    }
}

Fingers::Fingers()
{
    dpy_ = XOpenDisplay(nullptr);
    if (dpy_)
        XSetErrorHandler(ignoreXError);
}

Fingers::~Fingers()
{
    if (dpy_)
        XCloseDisplay(dpy_);
}

void Fingers::press(unsigned keycode)
{
    XTestFakeKeyEvent(dpy_, keycode, True, CurrentTime);
    XSync(dpy_, False);
}

void Fingers::release(unsigned keycode)
{
    XTestFakeKeyEvent(dpy_, keycode, False, CurrentTime);
    XSync(dpy_, False);
}

void Fingers::tap(unsigned keycode)
{
    press(keycode);
    release(keycode);
}

unsigned Fingers::keycodeOf(unsigned long keysym) const { return XKeysymToKeycode(dpy_, keysym); }

bool Fingers::capsLocked() const
{
    XkbStateRec state{};
    return XkbGetState(dpy_, XkbUseCoreKbd, &state) == Success && (state.locked_mods & LockMask);
}

QByteArray Fingers::mapping() const
{
    int minKc = 0, maxKc = 0, per = 0;
    XDisplayKeycodes(dpy_, &minKc, &maxKc);
    KeySym* syms = XGetKeyboardMapping(dpy_, static_cast<KeyCode>(minKc), maxKc - minKc + 1, &per);
    QByteArray out(reinterpret_cast<const char*>(syms), static_cast<qsizetype>(sizeof(KeySym)) * (maxKc - minKc + 1) * per);
    XFree(syms);
    return out;
}
