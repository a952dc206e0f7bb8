// The pill as a user meets it on a real X server: what it draws in each state, where it appears, how
// it widens, that it keeps its place across launches and that clicking or dragging it never moves
// the keyboard focus away from the application being dictated into.
#include "storage/Preferences.h"
#include "support/RecordingClient.h"
#include "support/TestSupport.h"
#include "ui/OverlayController.h"
#include "ui/WaveformPanelView.h"
#include "ui/x11/X11Desktop.h"

#include <QAbstractButton>
#include <QGuiApplication>
#include <QTest>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>

#include <cmath>

using TestSupport::waitUntil;
using State = WaveformPanelView::State;

namespace {

// The view drawn into an image; pixels are read in points, whatever the scale.
struct Drawn {
    QImage image;
    explicit Drawn(QWidget& view) : image(view.grab().toImage()) {}
    QColor at(double x, double y) const
    {
        const double s = image.devicePixelRatio();
        return image.pixelColor(static_cast<int>(x * s), static_cast<int>(y * s));
    }
};

bool isGreen(const QColor& c)
{
    return c.alpha() > 200 && c.green() > 60 && c.green() > c.red() * 2 && c.green() > c.blue() * 1.4;
}

// The test's own X connection: what a window manager reads, and a user's pointer.
Display* x11()
{
    static Display* dpy = XOpenDisplay(nullptr);
    return dpy;
}

Window focusedWindow()
{
    Window w = 0;
    int revert = 0;
    XGetInputFocus(x11(), &w, &revert);
    return w;
}

void pointer(QPoint p, std::optional<bool> buttonDown = {})
{
    XTestFakeMotionEvent(x11(), -1, p.x(), p.y(), CurrentTime);
    if (buttonDown)
        XTestFakeButtonEvent(x11(), 1, *buttonDown, CurrentTime);
    XSync(x11(), False);
    QTest::qWait(15);
}

// A window property as names (atoms) or numbers (cardinals).
QStringList windowProperty(WId window, const char* name)
{
    QStringList out;
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(x11(), window, XInternAtom(x11(), name, False), 0, 64, False, AnyPropertyType, &type,
                           &format, &count, &after, &data) != Success || !data)
        return out;
    for (unsigned long i = 0; i < count; ++i) {
        const unsigned long value = reinterpret_cast<unsigned long*>(data)[i];  // Xlib widens to long
        if (type == XA_ATOM) {
            char* atom = XGetAtomName(x11(), value);
            out << QString::fromLatin1(atom);
            XFree(atom);
        } else {
            out << QString::number(value & 0xFFFFFFFFul);
        }
    }
    XFree(data);
    return out;
}

QRect frame(const OverlayController& o) { return o.panel()->geometry(); }

bool buttonsShown(const OverlayController& o)
{
    return !o.waveView()->acceptButton()->isHidden() && !o.waveView()->trashButton()->isHidden();
}

QPointF savedPlace()
{
    const Preferences& p = Preferences::shared();
    return {p.doubleValue(QLatin1String(OverlayController::centerXKey)).value_or(-1),
            p.doubleValue(QLatin1String(OverlayController::topYKey)).value_or(-1)};
}

const QRect topCentre(617, 8, 46, 22);  // the Xvfb screen is 1280 wide

}  // namespace

class OverlayControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        Preferences::shared().remove(QLatin1String(OverlayController::centerXKey));
        Preferences::shared().remove(QLatin1String(OverlayController::topYKey));
    }

    void eachStateIsDrawn()
    {
        WaveformPanelView view;
        view.resize(46, 22);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        view.enterListening(false);
        view.setAmplitude(7);  // out of range: clamped
        QCOMPARE(view.amplitude(), 1.0);
        // The frame clock drives the bars: tall, bright and vertically centred.
        QVERIFY(waitUntil([&] { return view.animation().displayedAmp > 0.9; }));
        const QRectF middle = view.barRects()[1];
        QVERIFY(middle.height() > 8 && std::abs(middle.center().y() - 11) < 1e-9);
        Drawn d(view);
        QVERIFY(isGreen(d.at(middle.center().x(), middle.top() + 1)));
        QVERIFY(isGreen(d.at(middle.center().x(), middle.bottom() - 1)));

        // Idle at once: still, 3-point dim bars in a dark capsule with transparent corners.
        view.enterIdle();
        QVERIFY(!view.isAnimating());
        QCOMPARE(view.amplitude(), 0.0);
        d = Drawn(view);
        QCOMPARE(d.at(0.2, 0.2).alpha(), 0);
        QVERIFY(std::abs(d.at(8, 11).alpha() - 209) < 6 && d.at(8, 11).value() < 40);
        const QColor dim = d.at(22.5, 11);
        QVERIFY2(dim.green() > dim.red() && dim.green() < 150, qPrintable(dim.name(QColor::HexArgb)));
        QVERIFY(!isGreen(d.at(22.5, 7)));

        // Processing: the bars give way to a ring open at the lower left.
        view.enterProcessing(false);
        d = Drawn(view);
        const auto onRing = [&](double degrees) {
            const double a = degrees * M_PI / 180.0;
            return isGreen(d.at(23 + 5.9 * std::cos(a), 11 - 5.9 * std::sin(a)));
        };
        QVERIFY(onRing(0) && onRing(90) && onRing(170) && onRing(280));
        QVERIFY(!onRing(225));
        QVERIFY(!isGreen(d.at(22.5, 11)));

        // Hands-free: a green tick at the left end, a white trash can at the right end.
        view.resize(68, 22);
        view.enterListening(true);
        d = Drawn(view);
        QVERIFY(isGreen(d.at(9.5, 9.5)) || isGreen(d.at(8.5, 10.5)) || isGreen(d.at(7.5, 11.2)));
        QVERIFY(d.at(58, 12).value() > 150);
    }

    void firstLaunchUnderTheTopCentreOnEveryDesktop()
    {
        OverlayController overlay;
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        QCOMPARE(frame(overlay), topCentre);
        QCOMPARE(overlay.waveView()->state(), State::idle);

        // What a window manager reads: every desktop, sticky, above, never given the input focus.
        const WId w = overlay.panel()->winId();
        QCOMPARE(windowProperty(w, "_NET_WM_DESKTOP"), QStringList{QString::number(0xFFFFFFFFul)});
        const QStringList states = windowProperty(w, "_NET_WM_STATE");
        QVERIFY2(states.contains(QStringLiteral("_NET_WM_STATE_STICKY")) &&
                     states.contains(QStringLiteral("_NET_WM_STATE_ABOVE")),
                 qPrintable(states.join(u' ')));
        XWMHints* hints = XGetWMHints(x11(), w);
        QVERIFY(hints && (hints->flags & InputHint) && !hints->input);
        XFree(hints);
    }

    void withoutACompositorTheWindowIsCutToItsCapsule()
    {
        if (X11Desktop::compositingActive())
            QSKIP("a compositing manager runs on this display: the pill is translucent, not cut");
        OverlayController overlay;
        overlay.installPersistent();
        for (const bool wide : {false, true}) {
            overlay.show();
            overlay.setMode(wide);
            const QRegion shape = overlay.panel()->mask();
            const int w = frame(overlay).width(), h = frame(overlay).height();
            QCOMPARE(shape.boundingRect(), QRect(0, 0, w, h));
            // One run per row, mirrored left to right and top to bottom, the corners cut off.
            for (int y = 0; y < h; ++y) {
                int runs = 0;
                for (int x = 0; x < w; ++x) {
                    const bool in = shape.contains(QPoint(x, y));
                    QVERIFY(in == shape.contains(QPoint(w - 1 - x, y)) && in == shape.contains(QPoint(x, h - 1 - y)));
                    runs += in && (x == 0 || !shape.contains(QPoint(x - 1, y)));
                }
                QCOMPARE(runs, 1);
            }
            QVERIFY(!shape.contains(QPoint(0, 0)) && shape.contains(QPoint(0, h / 2)));
        }
    }

    void widthAndButtonsFollowTheDictation()
    {
        OverlayController overlay;
        overlay.installPersistent();
        const QRect wide(606, 8, 68, 22);
        const struct {
            const char* step;
            std::function<void()> act;
            QRect frame;
            bool buttons;
            State state;
        } steps[] = {
            {"hold-to-talk", [&] { overlay.show(); }, topCentre, false, State::listening},
            {"hands-free widens", [&] { overlay.setMode(true); }, wide, true, State::listening},
            {"and narrows back", [&] { overlay.setMode(false); }, topCentre, false, State::listening},
            {"hands-free processing", [&] { overlay.setMode(true), overlay.beginProcessing(); }, wide, true, State::processing},
            {"leaving hands-free keeps the size", [&] { overlay.setMode(false); }, wide, false, State::processing},
            {"idle", [&] { overlay.resetToIdle(); }, topCentre, false, State::idle},
            {"hold-to-talk processing", [&] { overlay.show(), overlay.beginProcessing(); }, topCentre, false, State::processing},
            {"hands-free while idle", [&] { overlay.resetToIdle(), overlay.setMode(true); }, topCentre, false, State::idle},
            {"opens wide next time", [&] { overlay.show(); }, wide, true, State::listening},
        };
        for (const auto& s : steps) {
            s.act();
            const WaveformPanelView* view = overlay.waveView();
            QVERIFY2(frame(overlay) == s.frame && buttonsShown(overlay) == s.buttons && view->state() == s.state, s.step);
            QVERIFY2(view->isAnimating() == (s.state != State::idle), s.step);
            QVERIFY2(view->spinnerVisible() == (s.state == State::processing), s.step);
            QVERIFY2(view->barRects()[1].center().x() == s.frame.width() / 2.0, s.step);  // bars stay centred
            QVERIFY2(overlay.panel()->isVisible(), s.step);
        }
        overlay.setAmplitude(0.5);
        QCOMPARE(overlay.waveView()->amplitude(), 0.5);
    }

    void placeIsRememberedAcrossLaunches()
    {
        {
            OverlayController overlay;
            overlay.installPersistent();
            QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
            overlay.panel()->move(100, 300);
            QVERIFY(waitUntil([] { return savedPlace() == QPointF(123, 300); }));
            // Widening moves the window too, and the centre kept stays the same.
            overlay.show();
            overlay.setMode(true);
            QCOMPARE(frame(overlay), QRect(89, 300, 68, 22));
            QTest::qWait(30);
            QCOMPARE(savedPlace(), QPointF(123, 300));
        }
        {
            OverlayController relaunched;
            relaunched.installPersistent();
            QCOMPARE(frame(relaunched), QRect(100, 300, 46, 22));
        }
        // The screen it was on is gone: back under the top centre.
        Preferences::shared().setDouble(QLatin1String(OverlayController::centerXKey), 3000);
        OverlayController elsewhere;
        elsewhere.installPersistent();
        QCOMPARE(frame(elsewhere), topCentre);
    }

    void clicksAndDragsNeverTakeTheFocus()
    {
        RecordingClient app;
        QVERIFY(app.start());
        const auto appFocused = [&] { return focusedWindow() == app.windowId(); };

        OverlayController overlay;
        int accepted = 0, cancelled = 0;
        overlay.onAccept = [&] { ++accepted; };
        overlay.onCancel = [&] { ++cancelled; };
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        overlay.show();
        overlay.setMode(true);
        QTest::qWait(50);
        QVERIFY(appFocused());

        // The insert button at the left end, the discard button at the right end.
        const QPoint origin = frame(overlay).topLeft();
        for (const QPoint button : {QPoint(10, 11), QPoint(58, 11)}) {
            pointer(origin + button, true);
            pointer(origin + button, false);
        }
        QVERIFY(waitUntil([&] { return accepted == 1 && cancelled == 1; }));
        QVERIFY(appFocused());
        QVERIFY(!QGuiApplication::focusWindow());

        // Dragging the background between the bars moves the pill, and the new place is kept.
        const QPoint grab = origin + QPoint(34, 11);
        pointer(grab, true);
        for (int step = 1; step <= 10; ++step)
            pointer(grab + QPoint(20 * step, 30 * step));
        pointer(grab + QPoint(200, 300), false);
        QVERIFY(waitUntil([&] { return frame(overlay).topLeft() == origin + QPoint(200, 300); }));
        QVERIFY(waitUntil([&] { return savedPlace() == QPointF(origin.x() + 234, origin.y() + 300); }));
        QCOMPARE(accepted + cancelled, 2);
        overlay.beginProcessing();
        overlay.resetToIdle();
        QTest::qWait(30);
        QVERIFY(appFocused());
    }
};

QTEST_MAIN(OverlayControllerTest)
#include "OverlayControllerTest.moc"
