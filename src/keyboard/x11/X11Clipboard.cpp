#include "keyboard/x11/X11Clipboard.h"

#include "core/Handoff.h"
#include "keyboard/ClipboardRestore.h"
#include "storage/Diagnostics.h"

#include <QSocketNotifier>
#include <QTimer>

// Xlib last: its macros (None, Bool, Status) clash with Qt's headers.
#include "keyboard/x11/X11Keyboard.h"
#include <X11/Xatom.h>

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {
using Clock = ClipboardRestore::Clock;
using std::chrono::milliseconds;

// The previous owner gets this long to answer for each format, and this long for all of them.
constexpr milliseconds answerTimeout{500};
constexpr milliseconds snapshotTimeout{2000};
// Larger data goes to requestors in pieces of this size (INCR).
constexpr qsizetype chunkBytes = 256 * 1024;
// A requestor that stops taking pieces for this long is given up.
constexpr milliseconds transferIdleLimit{10000};

void onConnectionBroken(Display*, void* flag) { *static_cast<bool*>(flag) = true; }

QString sizeText(qint64 bytes)
{
    return bytes < 1024 * 1024 ? QString::number((bytes + 1023) / 1024) + QStringLiteral(" kB")
                               : QString::number(double(bytes) / (1024 * 1024), 'f', 1) + QStringLiteral(" MB");
}
QString seconds(Clock::duration d) { return QString::number(std::chrono::duration<double>(d).count(), 'f', 2) + QStringLiteral(" s"); }

int unitBytes(int unitBits) { return unitBits == 32 ? 4 : unitBits == 16 ? 2 : 1; }

// Xlib hands 32-bit property units over as longs; the content keeps them as 32 bits.
QByteArray packUnits(const unsigned char* data, unsigned long count, int unitBits)
{
    if (unitBits != 32)
        return QByteArray(reinterpret_cast<const char*>(data), qsizetype(count) * unitBytes(unitBits));
    QByteArray out(qsizetype(count) * 4, Qt::Uninitialized);
    const auto* longs = reinterpret_cast<const long*>(data);
    for (unsigned long i = 0; i < count; ++i) {
        const auto v = static_cast<quint32>(longs[i]);
        std::memcpy(out.data() + i * 4, &v, 4);
    }
    return out;
}

void changeProperty(Display* dpy, Window w, Atom property, Atom type, int unitBits, const char* data, qsizetype bytes)
{
    const int count = int(bytes / unitBytes(unitBits));
    if (unitBits != 32) {
        XChangeProperty(dpy, w, property, type, unitBits, PropModeReplace, reinterpret_cast<const unsigned char*>(data), count);
        return;
    }
    std::vector<long> longs(size_t(count) + 1);
    for (int i = 0; i < count; ++i) {
        quint32 v = 0;
        std::memcpy(&v, data + i * 4, 4);
        longs[size_t(i)] = long(v);
    }
    XChangeProperty(dpy, w, property, type, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(longs.data()), count);
}

struct PropertyValue {
    Atom type = None;
    int unitBits = 8;
    QByteArray data;
    unsigned long bytesLeft = 0;
};

// Reads a property; `units` = -1 reads it all.
std::optional<PropertyValue> readProperty(Display* dpy, Window w, Atom property, bool remove, long units = -1)
{
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(dpy, w, property, 0, units < 0 ? 0x1fffffff : units, remove ? True : False, AnyPropertyType,
                           &type, &format, &count, &after, &data) != Success)
        return std::nullopt;
    PropertyValue v{type, format == 0 ? 8 : format, data ? packUnits(data, count, format) : QByteArray(), after};
    if (data)
        XFree(data);
    if (type == None)
        return std::nullopt;
    return v;
}
}  // namespace

class X11Clipboard::Worker final : public QObject {
public:
    ~Worker() override { close(); }

    bool setForPaste(const QString& text, std::optional<ClipboardContent> ownContent)
    {
        if (!ensureConnection())
            return false;
        processPending();
        ClipboardContent previous;
        if (restore_.needsSnapshot())
            previous = ownContent ? std::move(*ownContent) : snapshot();
        if (broken_ || !take(ClipboardContent::dictation(text)))
            return false;
        restore_.dictationSet(std::move(previous));
        schedule();
        processPending();  // what the round trips above queued would wait for the next event otherwise
        return true;
    }

    void keystrokeSending()
    {
        keystrokeAt_ = Clock::now();
        restore_.keystrokeSent(keystrokeAt_);
        schedule();
    }

private:
    struct Transfer {
        Window requestor = None;
        Atom property = None;
        Atom type = None;
        ClipboardItem item;
        qsizetype offset = 0;
        Clock::time_point lastActivity;
    };

    bool ensureConnection()
    {
        if (dpy_ && broken_)
            close();
        if (dpy_)
            return true;
        X11Keyboard::installErrorHandler();
        dpy_ = XOpenDisplay(nullptr);
        if (!dpy_)
            return false;
        broken_ = false;
        XSetIOErrorExitHandler(dpy_, onConnectionBroken, &broken_);
        XSetWindowAttributes attrs{};
        attrs.event_mask = PropertyChangeMask;
        win_ = XCreateWindow(dpy_, DefaultRootWindow(dpy_), -10, -10, 1, 1, 0, CopyFromParent, InputOnly, CopyFromParent,
                             CWEventMask, &attrs);
        clipboard_ = atom("CLIPBOARD");
        targets_ = atom("TARGETS");
        timestamp_ = atom("TIMESTAMP");
        multiple_ = atom("MULTIPLE");
        incr_ = atom("INCR");
        atomPair_ = atom("ATOM_PAIR");
        incoming_ = atom("_TOLVANE_CLIPBOARD");
        clock_ = atom("_TOLVANE_TIME");
        notifier_ = new QSocketNotifier(ConnectionNumber(dpy_), QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, [this] { processPending(); });
        if (!timer_) {
            timer_ = new QTimer(this);
            timer_->setSingleShot(true);
            connect(timer_, &QTimer::timeout, this, [this] { onTimer(); });
        }
        return true;
    }

    void close()
    {
        delete notifier_;
        notifier_ = nullptr;
        if (dpy_ && !broken_)
            XCloseDisplay(dpy_);
        dpy_ = nullptr;
        owning_ = false;
        served_.clear();
        transfers_.clear();
        restore_.abandon();
    }

    Atom atom(const QByteArray& name) { return XInternAtom(dpy_, name.constData(), False); }

    QByteArray nameOf(Atom a)
    {
        char* name = a == None ? nullptr : XGetAtomName(dpy_, a);
        const QByteArray out(name ? name : "");
        if (name)
            XFree(name);
        return out;
    }

    // Handles every event until `match` takes one (returned) or the deadline passes.
    template <typename Match>
    std::optional<XEvent> waitFor(Match match, Clock::time_point deadline)
    {
        for (;;) {
            while (!broken_ && XPending(dpy_) > 0) {
                XEvent ev;
                XNextEvent(dpy_, &ev);
                if (match(ev))
                    return ev;
                dispatch(ev);
            }
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
            if (broken_ || left <= 0)
                return std::nullopt;
            pollfd p{ConnectionNumber(dpy_), POLLIN, 0};
            ::poll(&p, 1, int(left));
        }
    }

    void processPending()
    {
        while (dpy_ && !broken_ && XPending(dpy_) > 0) {
            XEvent ev;
            XNextEvent(dpy_, &ev);
            dispatch(ev);
        }
        if (broken_ && notifier_)
            notifier_->setEnabled(false);
    }

    void dispatch(XEvent& ev)
    {
        if (ev.type == SelectionRequest)
            onSelectionRequest(ev.xselectionrequest);
        else if (ev.type == SelectionClear)
            onSelectionClear(ev.xselectionclear);
        else if (ev.type == PropertyNotify && ev.xproperty.state == PropertyDelete)
            sendNextPiece(ev.xproperty.window, ev.xproperty.atom);
    }

    // A server timestamp, from a property change of our own window.
    Time serverTime()
    {
        XChangeProperty(dpy_, win_, clock_, XA_INTEGER, 32, PropModeAppend, nullptr, 0);
        const auto ev = waitFor([this](const XEvent& e) { return e.type == PropertyNotify && e.xproperty.window == win_ && e.xproperty.atom == clock_; },
                                Clock::now() + answerTimeout);
        return ev ? ev->xproperty.time : CurrentTime;
    }

    bool take(ClipboardContent content)
    {
        const Time t = serverTime();
        XSetSelectionOwner(dpy_, clipboard_, win_, t);
        if (XGetSelectionOwner(dpy_, clipboard_) != win_)
            return false;
        owning_ = true;
        ownedSince_ = t;
        served_.clear();
        for (const ClipboardItem& item : content.items())
            served_.emplace_back(atom(item.mimeType), item);
        return true;
    }

    // What the clipboard holds now, every format within ClipboardContent's cap.
    ClipboardContent snapshot()
    {
        const Window owner = XGetSelectionOwner(dpy_, clipboard_);
        ClipboardContent content;
        if (owner == None)
            return content;
        if (owner == win_ && owning_) {
            for (const auto& [a, item] : served_)
                content.add(item);
            return content;
        }
        const Time t = serverTime();
        const auto deadline = Clock::now() + snapshotTimeout;
        QList<QByteArray> offered;
        if (const auto list = fetch(targets_, t, deadline); list && list->unitBits == 32) {
            std::vector<Atom> atoms;
            for (qsizetype i = 0; i + 4 <= list->data.size(); i += 4) {
                quint32 v = 0;
                std::memcpy(&v, list->data.constData() + i, 4);
                atoms.push_back(v);
            }
            std::vector<char*> names(atoms.size());
            if (!atoms.empty() && XGetAtomNames(dpy_, atoms.data(), int(atoms.size()), names.data())) {
                for (char* n : names) {
                    offered << QByteArray(n);
                    XFree(n);
                }
            }
        } else {
            offered = {"UTF8_STRING", "STRING"};  // an owner too old to list its formats
        }
        QList<QByteArray> missed;
        for (const QByteArray& name : ClipboardContent::fetchOrder(offered)) {
            const qint64 budget = content.budgetFor(name);
            if (budget == 0) {
                content.overflow();
                continue;
            }
            bool tooLarge = false;
            if (Clock::now() >= deadline)
                missed << name;
            else if (auto value = fetch(atom(name), t, deadline, budget, &tooLarge))
                content.add(ClipboardItem{name, value->data, nameOf(value->type), value->unitBits});
            else if (tooLarge)
                content.overflow();
        }
        if (!missed.isEmpty())
            Diagnostics::log(QStringLiteral("clipboard: the clipboard's owner took more than %1 to hand over its content; not kept: %2")
                                 .arg(seconds(snapshotTimeout), QString::fromUtf8(missed.join(", "))));
        if (content.textOnly())
            Diagnostics::log(QStringLiteral("clipboard: the clipboard's formats take more than %1 together; only its text is kept after the paste")
                                 .arg(sizeText(ClipboardContent::sizeCap)));
        return content;
    }

    // Asks the clipboard's owner for `target`; more than `budget` bytes (when not -1) are not read.
    std::optional<PropertyValue> fetch(Atom target, Time t, Clock::time_point deadline, qint64 budget = -1, bool* tooLarge = nullptr)
    {
        XDeleteProperty(dpy_, win_, incoming_);
        XConvertSelection(dpy_, clipboard_, target, incoming_, win_, t);
        const auto replyBy = std::min(deadline, Clock::now() + answerTimeout);
        const auto ev = waitFor([&](const XEvent& e) {
            return e.type == SelectionNotify && e.xselection.requestor == win_ && e.xselection.selection == clipboard_ && e.xselection.target == target;
        }, replyBy);
        if (!ev || ev->xselection.property == None)
            return std::nullopt;
        const auto head = readProperty(dpy_, win_, incoming_, false, 0);
        if (!head)
            return std::nullopt;
        if (head->type == incr_)
            return fetchInPieces(deadline, budget, tooLarge);
        if (budget >= 0 && qint64(head->bytesLeft) > budget) {
            XDeleteProperty(dpy_, win_, incoming_);
            *tooLarge = true;
            return std::nullopt;
        }
        return readProperty(dpy_, win_, incoming_, true);
    }

    std::optional<PropertyValue> fetchInPieces(Clock::time_point deadline, qint64 budget, bool* tooLarge)
    {
        XDeleteProperty(dpy_, win_, incoming_);  // asks for the first piece
        XFlush(dpy_);
        PropertyValue all;
        for (;;) {
            const auto ev = waitFor([this](const XEvent& e) {
                return e.type == PropertyNotify && e.xproperty.window == win_ && e.xproperty.atom == incoming_ && e.xproperty.state == PropertyNewValue;
            }, std::min(deadline, Clock::now() + answerTimeout));
            if (!ev)
                return std::nullopt;
            const auto piece = readProperty(dpy_, win_, incoming_, true);  // the deletion asks for the next
            if (!piece)
                return std::nullopt;
            if (piece->data.isEmpty()) {
                all.type = piece->type;
                all.unitBits = piece->unitBits;
                return all;
            }
            all.data += piece->data;
            if (budget >= 0 && all.data.size() > budget) {
                // The owner gives up on its own once nobody takes the next piece.
                *tooLarge = true;
                return std::nullopt;
            }
        }
    }

    void onSelectionClear(const XSelectionClearEvent& ev)
    {
        // Our own release, or an older ownership, is no news.
        if (ev.selection != clipboard_ || !owning_ || ev.time < ownedSince_)
            return;
        owning_ = false;
        served_.clear();
        if (restore_.pending())
            Diagnostics::log(QStringLiteral("clipboard: another program took the clipboard after the paste; what it holds now stays"));
        restore_.ownerChanged();
        schedule();
    }

    void onSelectionRequest(const XSelectionRequestEvent& req)
    {
        XSelectionEvent reply{};
        reply.type = SelectionNotify;
        reply.display = dpy_;
        reply.requestor = req.requestor;
        reply.selection = req.selection;
        reply.target = req.target;
        reply.time = req.time;
        reply.property = None;
        const Atom property = req.property == None ? req.target : req.property;  // clients older than ICCCM 2
        // The request's time is not held against it: Qt and others send the time of the last event
        // they saw, which may well be older than this ownership.
        const bool ours = req.selection == clipboard_ && owning_;
        std::vector<QByteArray> answered;
        if (ours && req.target == multiple_ && req.property != None) {
            if (auto pairs = readProperty(dpy_, req.requestor, req.property, false); pairs && pairs->unitBits == 32) {
                for (qsizetype i = 0; i + 8 <= pairs->data.size(); i += 8) {
                    quint32 target = 0, prop = 0;
                    std::memcpy(&target, pairs->data.constData() + i, 4);
                    std::memcpy(&prop, pairs->data.constData() + i + 4, 4);
                    if (!convert(req.requestor, target, prop, answered)) {
                        prop = None;
                        std::memcpy(pairs->data.data() + i + 4, &prop, 4);
                    }
                }
                changeProperty(dpy_, req.requestor, req.property, atomPair_, 32, pairs->data.constData(), pairs->data.size());
                reply.property = property;
            }
        } else if (ours && convert(req.requestor, req.target, property, answered)) {
            reply.property = property;
        }
        XSendEvent(dpy_, req.requestor, False, NoEventMask, reinterpret_cast<XEvent*>(&reply));
        XFlush(dpy_);
        for (const QByteArray& type : answered)
            onAnswered(type);
    }

    // Puts `target` into the requestor's property; `answered` gets the formats handed over whole.
    bool convert(Window requestor, Atom target, Atom property, std::vector<QByteArray>& answered)
    {
        if (target == targets_) {
            std::vector<long> atoms{long(targets_), long(timestamp_), long(multiple_)};
            for (const auto& [a, item] : served_)
                atoms.push_back(long(a));
            XChangeProperty(dpy_, requestor, property, XA_ATOM, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(atoms.data()), int(atoms.size()));
            return true;
        }
        if (target == timestamp_) {
            const long t = long(ownedSince_);
            XChangeProperty(dpy_, requestor, property, XA_INTEGER, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(&t), 1);
            return true;
        }
        const auto it = std::find_if(served_.begin(), served_.end(), [&](const auto& entry) { return entry.first == target; });
        if (it == served_.end())
            return false;
        const ClipboardItem& item = it->second;
        const Atom type = item.encoding.isEmpty() ? target : atom(item.encoding);
        if (item.data.size() <= chunkBytes) {
            changeProperty(dpy_, requestor, property, type, item.unitBits, item.data.constData(), item.data.size());
            answered.push_back(item.mimeType);
            return true;
        }
        // Too large for one property: the requestor takes it piece by piece, deleting each.
        XSelectInput(dpy_, requestor, PropertyChangeMask);
        const long size = long(item.data.size());
        XChangeProperty(dpy_, requestor, property, incr_, 32, PropModeReplace, reinterpret_cast<const unsigned char*>(&size), 1);
        transfers_.push_back(Transfer{requestor, property, type, item, 0, Clock::now()});
        return true;
    }

    void sendNextPiece(Window requestor, Atom property)
    {
        const auto now = Clock::now();
        std::erase_if(transfers_, [&](const Transfer& t) { return now - t.lastActivity > transferIdleLimit; });
        const auto it = std::find_if(transfers_.begin(), transfers_.end(),
                                     [&](const Transfer& t) { return t.requestor == requestor && t.property == property; });
        if (it == transfers_.end())
            return;
        const qsizetype unit = unitBytes(it->item.unitBits);
        const qsizetype n = std::min(chunkBytes / unit * unit, it->item.data.size() - it->offset);
        changeProperty(dpy_, requestor, property, it->type, it->item.unitBits, it->item.data.constData() + it->offset, n);
        it->offset += n;
        it->lastActivity = now;
        if (n > 0)
            return;
        // The empty piece just written ends the transfer.
        const QByteArray type = it->item.mimeType;
        transfers_.erase(it);
        if (std::none_of(transfers_.begin(), transfers_.end(), [&](const Transfer& t) { return t.requestor == requestor; }))
            XSelectInput(dpy_, requestor, NoEventMask);
        XFlush(dpy_);
        onAnswered(type);
    }

    void onAnswered(const QByteArray& type)
    {
        restore_.requestAnswered(type, Clock::now());
        schedule();
    }

    void schedule()
    {
        if (!timer_)
            return;
        const auto at = restore_.wakeAt();
        if (!at) {
            timer_->stop();
            return;
        }
        timer_->start(std::max<milliseconds>(milliseconds(0), std::chrono::ceil<milliseconds>(*at - Clock::now())));
    }

    void onTimer()
    {
        processPending();  // a copy already queued wins over the restore
        const auto now = Clock::now();
        const ClipboardRestore::Due due = restore_.due(now);
        if (due == ClipboardRestore::Due::notYet || broken_) {
            schedule();
            return;
        }
        const ClipboardContent previous = restore_.take();
        if (XGetSelectionOwner(dpy_, clipboard_) != win_) {
            owning_ = false;
            Diagnostics::log(QStringLiteral("clipboard: another program took the clipboard after the paste; what it holds now stays"));
            processPending();
            return;
        }
        if (previous.isEmpty()) {
            XSetSelectionOwner(dpy_, clipboard_, None, serverTime());
            owning_ = false;
            served_.clear();
        } else {
            // Taken anew, so programs that remember the formats on offer see the change.
            take(previous);
        }
        XSync(dpy_, False);
        const QString what = previous.isEmpty() ? QStringLiteral("empty again")
                                                : QStringLiteral("back (%1 formats, %2)").arg(previous.items().size()).arg(sizeText(previous.size()));
        if (due == ClipboardRestore::Due::noRequest)
            Diagnostics::log(QStringLiteral("clipboard: no application asked for the pasted text within %1; the clipboard is %2")
                                 .arg(seconds(ClipboardRestore::noRequestLimit), what));
        else
            Diagnostics::log(QStringLiteral("clipboard: the clipboard is %1, %2 after the paste").arg(what, seconds(now - keystrokeAt_)));
        processPending();
    }

    Display* dpy_ = nullptr;
    bool broken_ = false;
    Window win_ = None;
    Atom clipboard_ = None, targets_ = None, timestamp_ = None, multiple_ = None, incr_ = None, atomPair_ = None;
    Atom incoming_ = None, clock_ = None;
    QSocketNotifier* notifier_ = nullptr;
    QTimer* timer_ = nullptr;
    bool owning_ = false;
    Time ownedSince_ = CurrentTime;
    // In the order the formats were offered: some programs take the first they can use.
    std::vector<std::pair<Atom, ClipboardItem>> served_;
    std::vector<Transfer> transfers_;
    ClipboardRestore restore_;
    Clock::time_point keystrokeAt_;
};

X11Clipboard::X11Clipboard()
{
    thread_.setObjectName(QStringLiteral("clipboard"));
    worker_ = new Worker;
    worker_->moveToThread(&thread_);
    thread_.start();
}

X11Clipboard::~X11Clipboard()
{
    // Deleted on its own thread, where its X connection and timers live, and before that thread
    // ends: what it did is then known to be done here.
    Handoff::call(worker_, [worker = worker_] { delete worker; });
    thread_.quit();
    thread_.wait();
}

bool X11Clipboard::setForPaste(const QString& text, std::optional<ClipboardContent> ownContent)
{
    bool ok = false;
    Handoff::call(worker_, [&] { ok = worker_->setForPaste(text, std::move(ownContent)); });
    return ok;
}

void X11Clipboard::keystrokeSending()
{
    Handoff::call(worker_, [this] { worker_->keystrokeSending(); });
}
