// The pill: its placement computed alone, then as a user meets it on a real X server: where it
// appears, how it widens, its edge, that it keeps its place and never takes the focus.
#include "storage/Preferences.h"
#include "support/RecordingClient.h"
#include "ui/UiTest.h"
#include "ui/pill/OverlayController.h"
#include "ui/pill/OverlayPlacement.h"
#include "ui/pill/PillShadow.h"
#include "ui/pill/WaveformPanelView.h"
#include "ui/x11/X11Desktop.h"

#include <QAbstractButton>
#include <QGuiApplication>
#include <QScopeGuard>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <cmath>

using State = WaveformPanelView::State;

namespace {

// The idle pill's frame where placement puts it; a null rectangle when it stays where it is.
QRectF pillAt(std::optional<QPoint> origin) { return origin ? QRectF(*origin, QSizeF(46, 22)) : QRectF(); }

// A user's pointer and the keyboard focus, on the test's own X connection.
Display* const x11 = XOpenDisplay(nullptr);

Window focusedWindow()
{
    Window w = 0;
    int revert = 0;
    XGetInputFocus(x11, &w, &revert);
    return w;
}

void pointer(QPoint p, std::optional<bool> buttonDown = {})
{
    XTestFakeMotionEvent(x11, -1, p.x(), p.y(), CurrentTime);
    if (buttonDown)
        XTestFakeButtonEvent(x11, 1, *buttonDown, CurrentTime);
    XSync(x11, False);
    QTest::qWait(15);
}

QRect frame(const OverlayController& o) { return o.panel()->geometry(); }

// The pill as a user sees it: place, width, state and buttons.
QString seen(const OverlayController& o)
{
    const WaveformPanelView* v = o.waveView();
    const char* states[] = {"idle", "listening", "processing"};
    const bool buttons = !v->acceptButton()->isHidden() && !v->trashButton()->isHidden();
    return QStringLiteral("%1,%2+%3 %4%5").arg(frame(o).x()).arg(frame(o).y()).arg(frame(o).width())
        .arg(QLatin1String(states[static_cast<int>(v->state())]), QLatin1String(buttons ? " with buttons" : ""));
}

}  // namespace

class PillTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void layout_data()
    {
        const auto place = OverlayPlacement::initialOrigin;
        const QList<QRect> one{{0, 0, 1280, 800}}, two{{0, 0, 1280, 800}, {1280, 0, 1920, 1080}};
        const QRect full(0, 0, 1280, 800);
        const QRectF topCentre(617, 8, 46, 22);
        QTest::addColumn<QRectF>("actual");
        QTest::addColumn<QRectF>("expected");
        // The pill goes under the top centre unless a saved place still touches a screen.
        QTest::newRow("first launch") << pillAt(place({}, {}, one, full)) << topCentre;
        QTest::newRow("below a top panel") << pillAt(place({}, {}, one, QRect(0, 32, 1280, 768))) << topCentre.translated(0, 32);
        QTest::newRow("one key alone") << pillAt(place(300.0, {}, one, full)) << topCentre;
        QTest::newRow("saved") << pillAt(place(300.0, 500.0, two, full)) << QRectF(277, 500, 46, 22);
        QTest::newRow("saved on the second screen") << pillAt(place(2000.0, 900.0, two, full)) << QRectF(1977, 900, 46, 22);
        QTest::newRow("half off the edge") << pillAt(place(1290.0, 10.0, one, full)) << QRectF(1267, 10, 46, 22);
        QTest::newRow("screen unplugged") << pillAt(place(2000.0, 900.0, one, full)) << topCentre;
        QTest::newRow("above the screen") << pillAt(place(640.0, -100.0, one, full)) << topCentre;
        QTest::newRow("nonsense") << pillAt(place(std::nan(""), 10.0, two, full)) << topCentre;
        QTest::newRow("no screen") << pillAt(place(300.0, 500.0, {}, std::nullopt)) << QRectF();
    }
    void layout()
    {
        QFETCH(QRectF, actual);
        QFETCH(QRectF, expected);
        QCOMPARE(actual, expected);
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
            // Each row one centred run, the same from the top and from the bottom; the corners cut off.
            for (int y = 0; y < h; ++y) {
                const QRect run = shape.intersected(QRect(0, y, w, 1)).boundingRect();
                QCOMPARE(shape.intersected(QRect(0, y, w, 1)), QRegion(run.left(), y, w - 2 * run.left(), 1));
                QCOMPARE(shape.intersected(QRect(0, h - 1 - y, w, 1)).boundingRect(), run.translated(0, h - 1 - 2 * y));
            }
            QVERIFY(!shape.contains(QPoint(0, 0)) && shape.contains(QPoint(0, h / 2)));
            QVERIFY(!overlay.shadow()->isVisible());  // a clean edge, no shadow
        }
    }

    void aCompositorGetsTheShadowBehindThePill()
    {
        // A compositing manager is whoever owns _NET_WM_CM_S<screen>: here, a window of the test's.
        Display* dpy = qGuiApp->nativeInterface<QNativeInterface::QX11Application>()->display();
        const Atom cm = XInternAtom(dpy, ("_NET_WM_CM_S" + QByteArray::number(DefaultScreen(dpy))).constData(), False);
        const Window owner = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 1, 1, 0, 0, 0);
        XSetSelectionOwner(dpy, cm, owner, CurrentTime);
        XSync(dpy, False);
        const auto release = qScopeGuard([&] {
            XSetSelectionOwner(dpy, cm, None, CurrentTime);
            XDestroyWindow(dpy, owner);
            XSync(dpy, False);
        });
        OverlayController overlay;
        overlay.installPersistent();
        const QWidget* shadow = overlay.shadow();
        const auto around = [&] {
            const QRect pill = frame(overlay), s = shadow->geometry();
            return shadow->isVisible() && s.contains(pill) && s.center().x() == pill.center().x() && s.top() < pill.top() &&
                   s.bottom() > pill.bottom();
        };
        QVERIFY(waitUntil(around));
        QVERIFY(overlay.panel()->mask().isEmpty());  // translucent rather than cut
        QVERIFY(shadow->windowFlags().testFlag(Qt::WindowTransparentForInput) &&
                shadow->windowFlags().testFlag(Qt::WindowDoesNotAcceptFocus));
        // It follows the pill as it widens and as it is dragged.
        overlay.show();
        overlay.setMode(true);
        QVERIFY(waitUntil(around));
        overlay.panel()->move(frame(overlay).topLeft() + QPoint(40, 30));
        QVERIFY(waitUntil(around));
        for (const char* key : {OverlayController::centerXKey, OverlayController::topYKey})
            Preferences::shared().remove(QLatin1String(key));  // the next first launch starts afresh
    }

    void firstLaunchThenWidthAndButtonsFollowTheDictation()
    {
        OverlayController overlay;
        overlay.installPersistent();
        QVERIFY(QTest::qWaitForWindowExposed(overlay.panel()));
        QCOMPARE(seen(overlay), QStringLiteral("617,8+46 idle"));  // under the top centre of the 1280-wide screen
        // What a window manager reads: every desktop, sticky, above, never given the input focus.
        const QString props = windowProperties(overlay.panel());
        for (const char* p : {"_NET_WM_DESKTOP(CARDINAL) = 4294967295", "_NET_WM_STATE_STICKY", "_NET_WM_STATE_ABOVE",
                              "accepts input or input focus: False"})
            QVERIFY2(props.contains(QLatin1String(p)), qPrintable(props));
        const std::pair<std::function<void()>, const char*> steps[] = {
            {[&] { overlay.show(); }, "617,8+46 listening"},
            {[&] { overlay.setMode(true); }, "606,8+68 listening with buttons"},  // hands-free widens
            {[&] { overlay.setMode(false); }, "617,8+46 listening"},
            {[&] { overlay.setMode(true), overlay.beginProcessing(); }, "606,8+68 processing with buttons"},
            {[&] { overlay.setMode(false); }, "606,8+68 processing"},  // leaving hands-free keeps the size
            {[&] { overlay.resetToIdle(); }, "617,8+46 idle"},
            {[&] { overlay.show(), overlay.beginProcessing(); }, "617,8+46 processing"},
            {[&] { overlay.resetToIdle(), overlay.setMode(true); }, "617,8+46 idle"},  // hands-free while idle
            {[&] { overlay.show(); }, "606,8+68 listening with buttons"},              // opens wide next time
        };
        for (const auto& [act, expected] : steps) {
            act();
            QCOMPARE(seen(overlay), QLatin1String(expected));
            // Still on screen, moving only while busy, the ring only while processing, the bars centred.
            const WaveformPanelView* v = overlay.waveView();
            QVERIFY(overlay.panel()->isVisible() && v->isAnimating() == (v->state() != State::idle));
            QVERIFY(v->spinnerVisible() == (v->state() == State::processing));
            QCOMPARE(v->barRects()[1].center().x(), frame(overlay).width() / 2.0);
        }
    }

    void clicksAndDragsNeverTakeTheFocusAndThePlaceIsKept()
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
        QVERIFY(appFocused() && !QGuiApplication::focusWindow());
        // Dragging the background between the bars moves the pill, and the new place is kept.
        const QPoint grab = origin + QPoint(34, 11);
        pointer(grab, true);
        for (int step = 1; step <= 10; ++step)
            pointer(grab + QPoint(20 * step, 30 * step));
        pointer(grab + QPoint(200, 300), false);
        QVERIFY(waitUntil([&] { return frame(overlay).topLeft() == origin + QPoint(200, 300); }));
        QVERIFY(accepted == 1 && cancelled == 1);
        overlay.beginProcessing();
        overlay.resetToIdle();
        QTest::qWait(30);
        QVERIFY(appFocused());
        // Launched again, the idle pill comes back around the same centre.
        OverlayController relaunched;
        relaunched.installPersistent();
        QCOMPARE(frame(relaunched), QRect(origin + QPoint(211, 300), QSize(46, 22)));
    }
};

QTEST_MAIN(PillTest)
#include "PillTest.moc"
