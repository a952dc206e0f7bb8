// The pill as a user meets it on a real X server: where it appears, how it widens, that it keeps its
// place across launches and that clicking or dragging it never moves the keyboard focus away from
// the application being dictated into.
#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "ui/OverlayController.h"
#include "ui/WaveformPanelView.h"
#include "ui/x11/X11Desktop.h"

#include <QAbstractButton>
#include <QDir>
#include <QGuiApplication>
#include <QScreen>
#include <QTest>
#include <QWidget>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>

#include <memory>

namespace {

// Another X client that holds the keyboard focus, as the application being dictated into would.
class OtherApp {
public:
    OtherApp()
    {
        dpy_ = XOpenDisplay(nullptr);
        win_ = XCreateSimpleWindow(dpy_, DefaultRootWindow(dpy_), 300, 300, 300, 200, 0, 0, 0xffffff);
        XSelectInput(dpy_, win_, FocusChangeMask | StructureNotifyMask);
        XMapWindow(dpy_, win_);
        XSync(dpy_, False);
        XWindowAttributes attrs{};
        for (int i = 0; i < 200; ++i) {
            XGetWindowAttributes(dpy_, win_, &attrs);
            if (attrs.map_state == IsViewable)
                break;
            QTest::qWait(5);
        }
        XSetInputFocus(dpy_, win_, RevertToParent, CurrentTime);
        XSync(dpy_, False);
    }
    ~OtherApp()
    {
        XDestroyWindow(dpy_, win_);
        XCloseDisplay(dpy_);
    }
    Window window() const { return win_; }
    Window focus() const
    {
        Window w = 0;
        int revert = 0;
        XGetInputFocus(dpy_, &w, &revert);
        return w;
    }
    // A real pointer: motion, press and release go through the server like a user's.
    void press(QPoint p)
    {
        XTestFakeMotionEvent(dpy_, -1, p.x(), p.y(), CurrentTime);
        XTestFakeButtonEvent(dpy_, 1, True, CurrentTime);
        XSync(dpy_, False);
    }
    void moveTo(QPoint p)
    {
        XTestFakeMotionEvent(dpy_, -1, p.x(), p.y(), CurrentTime);
        XSync(dpy_, False);
    }
    void release()
    {
        XTestFakeButtonEvent(dpy_, 1, False, CurrentTime);
        XSync(dpy_, False);
    }
    void click(QPoint p)
    {
        press(p);
        QTest::qWait(30);
        release();
    }
    Display* display() const { return dpy_; }

private:
    Display* dpy_ = nullptr;
    Window win_ = 0;
};

QList<QString> atomNames(Display* dpy, Window w, const char* property)
{
    QList<QString> names;
    Atom type = 0;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(dpy, w, XInternAtom(dpy, property, False), 0, 64, False, AnyPropertyType, &type, &format,
                           &count, &after, &data) == Success &&
        data) {
        for (unsigned long i = 0; i < count; ++i) {
            if (type == XA_ATOM) {
                char* name = XGetAtomName(dpy, reinterpret_cast<Atom*>(data)[i]);
                names << QString::fromLatin1(name);
                XFree(name);
            } else {
                names << QString::number(reinterpret_cast<unsigned long*>(data)[i] & 0xFFFFFFFFul);  // Xlib widens to long
            }
        }
        XFree(data);
    }
    return names;
}

QRect frame(const OverlayController& o)
{
    return o.panel()->geometry();
}

bool buttonsShown(const OverlayController& o)
{
    return !o.waveView()->acceptButton()->isHidden() && !o.waveView()->trashButton()->isHidden();
}

bool buttonsHidden(const OverlayController& o)
{
    return o.waveView()->acceptButton()->isHidden() && o.waveView()->trashButton()->isHidden();
}

void forgetPlace()
{
    Preferences::shared().remove(QLatin1String(OverlayController::centerXKey));
    Preferences::shared().remove(QLatin1String(OverlayController::topYKey));
}

}  // namespace

class OverlayControllerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init() { forgetPlace(); }

    void firstLaunchUnderTheTopCentreOnEveryDesktop()
    {
        OverlayController overlay;
        QVERIFY(!overlay.panel());  // made on first use
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        QCOMPARE(frame(overlay), QRect(617, 8, 46, 22));  // the Xvfb screen is 1280 wide
        QCOMPARE(overlay.waveView()->state(), WaveformPanelView::State::idle);
        QVERIFY(!overlay.waveView()->isAnimating());

        // What a window manager reads: every desktop, sticky, above, never given the input focus.
        OtherApp x;
        const Window w = static_cast<Window>(overlay.panel()->winId());
        QCOMPARE(atomNames(x.display(), w, "_NET_WM_DESKTOP"), QList<QString>{QString::number(0xFFFFFFFFul)});
        const QList<QString> states = atomNames(x.display(), w, "_NET_WM_STATE");
        QVERIFY2(states.contains(QStringLiteral("_NET_WM_STATE_STICKY")), qPrintable(states.join(u' ')));
        QVERIFY(states.contains(QStringLiteral("_NET_WM_STATE_ABOVE")));
        XWMHints* hints = XGetWMHints(x.display(), w);
        QVERIFY(hints);
        QVERIFY((hints->flags & InputHint) && !hints->input);
        XFree(hints);
    }

    void withoutACompositorTheWindowIsCutToItsCapsule()
    {
        if (X11Desktop::compositingActive())
            QSKIP("a compositing manager runs on this display: the pill is translucent, not cut");
        OverlayController overlay;
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        for (const bool wide : {false, true}) {
            overlay.setMode(wide);
            const QRegion shape = overlay.panel()->mask();
            const int w = frame(overlay).width(), h = frame(overlay).height();
            QCOMPARE(shape.boundingRect(), QRect(0, 0, w, h));
            for (int y = 0; y < h; ++y) {
                // One run per row, the same from either end and from the top or the bottom; the
                // corners cut off, the middle rows the whole width.
                int runs = 0;
                for (int x = 0; x < w; ++x) {
                    const bool in = shape.contains(QPoint(x, y));
                    QVERIFY2(in == shape.contains(QPoint(w - 1 - x, y)) && in == shape.contains(QPoint(x, h - 1 - y)),
                             qPrintable(QStringLiteral("%1,%2 in a %3x%4 pill").arg(x).arg(y).arg(w).arg(h)));
                    if (in && (x == 0 || !shape.contains(QPoint(x - 1, y))))
                        ++runs;
                }
                QCOMPARE(runs, 1);
            }
            QVERIFY(!shape.contains(QPoint(0, 0)) && !shape.contains(QPoint(w - 1, h - 1)));
            QVERIFY(shape.contains(QPoint(0, h / 2)) && shape.contains(QPoint(w - 1, h / 2)));
        }
    }

    void handsFreeWidensAroundTheSameCentre()
    {
        OverlayController overlay;
        overlay.installPersistent();
        overlay.show();
        QCOMPARE(overlay.waveView()->state(), WaveformPanelView::State::listening);
        QVERIFY(overlay.waveView()->isAnimating());
        QCOMPARE(frame(overlay), QRect(617, 8, 46, 22));
        QVERIFY(buttonsHidden(overlay));

        overlay.setMode(true);
        QCOMPARE(frame(overlay), QRect(606, 8, 68, 22));
        QVERIFY(buttonsShown(overlay));
        QCOMPARE(overlay.waveView()->barRects()[0].x(), 26.0);
        overlay.setMode(false);
        QCOMPARE(frame(overlay), QRect(617, 8, 46, 22));
        QVERIFY(buttonsHidden(overlay));
        QCOMPARE(overlay.waveView()->barRects()[0].x(), 15.0);

        // Hands-free into processing keeps the wide pill, its buttons beside the ring.
        overlay.setMode(true);
        overlay.beginProcessing();
        QCOMPARE(frame(overlay).width(), 68);
        QCOMPARE(overlay.waveView()->state(), WaveformPanelView::State::processing);
        QVERIFY(buttonsShown(overlay));
        QVERIFY(overlay.waveView()->spinnerVisible());
        QVERIFY(overlay.waveView()->isAnimating());
        // Leaving hands-free while processing hides the buttons but keeps the size.
        overlay.setMode(false);
        QVERIFY(buttonsHidden(overlay));
        QCOMPARE(frame(overlay).width(), 68);

        overlay.resetToIdle();
        QCOMPARE(frame(overlay), QRect(617, 8, 46, 22));
        QVERIFY(buttonsHidden(overlay));
        QCOMPARE(overlay.waveView()->state(), WaveformPanelView::State::idle);
        QVERIFY(!overlay.waveView()->isAnimating());
        QVERIFY(overlay.panel()->isVisible());  // the pill stays on screen

        // Hold-to-talk processing stays narrow.
        overlay.show();
        overlay.beginProcessing();
        QCOMPARE(frame(overlay).width(), 46);
        QVERIFY(buttonsHidden(overlay));
        overlay.resetToIdle();

        // Hands-free announced while idle changes nothing visible; the next dictation opens wide.
        overlay.setMode(true);
        QCOMPARE(frame(overlay).width(), 46);
        QVERIFY(buttonsHidden(overlay));
        overlay.show();
        QCOMPARE(frame(overlay), QRect(606, 8, 68, 22));
        QVERIFY(buttonsShown(overlay));
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
            QVERIFY(TestSupport::waitUntil([] {
                return Preferences::shared().doubleValue(QLatin1String(OverlayController::centerXKey)) == 123.0;
            }));
            QCOMPARE(Preferences::shared().doubleValue(QLatin1String(OverlayController::topYKey)), 300.0);
            // A resize moves the window too, and the centre written stays the same.
            overlay.show();
            overlay.setMode(true);
            QCOMPARE(frame(overlay), QRect(89, 300, 68, 22));
            QVERIFY(TestSupport::waitUntil([] {
                return Preferences::shared().doubleValue(QLatin1String(OverlayController::centerXKey)) == 123.0;
            }));
        }
        {
            OverlayController relaunched;
            relaunched.installPersistent();
            QCOMPARE(frame(relaunched), QRect(100, 300, 46, 22));
        }
        // The screen it was on is gone: back under the top centre.
        Preferences::shared().setDouble(QLatin1String(OverlayController::centerXKey), 3000);
        Preferences::shared().setDouble(QLatin1String(OverlayController::topYKey), 300);
        OverlayController elsewhere;
        elsewhere.installPersistent();
        QCOMPARE(frame(elsewhere), QRect(617, 8, 46, 22));
    }

    void clicksAndDragsNeverTakeTheFocus()
    {
        OtherApp app;
        QVERIFY(TestSupport::waitUntil([&] { return app.focus() == app.window(); }));

        OverlayController overlay;
        int accepted = 0, cancelled = 0;
        overlay.onAccept = [&] { ++accepted; };
        overlay.onCancel = [&] { ++cancelled; };
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        overlay.show();
        overlay.setMode(true);
        QTest::qWait(50);
        QCOMPARE(app.focus(), app.window());

        // The insert button at the left end, the discard button at the right end.
        const QPoint origin = frame(overlay).topLeft();
        app.click(origin + QPoint(10, 11));
        QVERIFY(TestSupport::waitUntil([&] { return accepted == 1; }));
        QCOMPARE(cancelled, 0);
        QCOMPARE(app.focus(), app.window());
        app.click(origin + QPoint(58, 11));
        QVERIFY(TestSupport::waitUntil([&] { return cancelled == 1; }));
        QCOMPARE(accepted, 1);
        QCOMPARE(app.focus(), app.window());
        QVERIFY(QGuiApplication::focusWindow() == nullptr);

        // Dragging the background between the bars moves the pill, and the new place is kept.
        const QPoint grab = origin + QPoint(34, 11);
        app.press(grab);
        QTest::qWait(30);
        for (int step = 1; step <= 10; ++step) {
            app.moveTo(grab + QPoint(20 * step, 30 * step));
            QTest::qWait(10);
        }
        app.release();
        QVERIFY(TestSupport::waitUntil([&] { return frame(overlay).topLeft() == origin + QPoint(200, 300); }));
        QCOMPARE(accepted, 1);
        QCOMPARE(cancelled, 1);
        QCOMPARE(app.focus(), app.window());
        QVERIFY(TestSupport::waitUntil([&] {
            return Preferences::shared().doubleValue(QLatin1String(OverlayController::centerXKey)) ==
                       origin.x() + 200 + 34.0 &&
                   Preferences::shared().doubleValue(QLatin1String(OverlayController::topYKey)) == origin.y() + 300.0;
        }));

        overlay.beginProcessing();
        overlay.resetToIdle();
        QTest::qWait(30);
        QCOMPARE(app.focus(), app.window());
    }
};

QTEST_MAIN(OverlayControllerTest)
#include "OverlayControllerTest.moc"
