#include "ui/pill/OverlayController.h"

#include "storage/Preferences.h"
#include "ui/pill/OverlayPlacement.h"
#include "ui/pill/PillShadow.h"
#include "ui/pill/WaveformPanelView.h"
#include "ui/x11/X11Desktop.h"

#include <QAbstractButton>
#include <QEvent>
#include <QGuiApplication>
#include <QBitmap>
#include <QPainter>
#include <QScreen>

OverlayController::OverlayController(QObject* parent) : QObject(parent) {}

OverlayController::~OverlayController()
{
    shadow_.reset();
    delete panel_.data();
}

void OverlayController::build()
{
    // A tool window without frame, above everything, that the window manager never focuses; shown
    // without activating so the focused application keeps its text field.
    auto* panel = new QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                                           Qt::WindowDoesNotAcceptFocus | X11Desktop::overlayHint());
    panel->setWindowTitle(QStringLiteral("Tolvane"));
    panel->setAttribute(Qt::WA_TranslucentBackground);
    panel->setAttribute(Qt::WA_ShowWithoutActivating);
    panel->setAttribute(Qt::WA_X11DoNotAcceptFocus);
    panel->setAttribute(Qt::WA_QuitOnClose, false);
    panel->setFocusPolicy(Qt::NoFocus);
    panel->setGeometry(0, 0, OverlayPlacement::idleWidth, OverlayPlacement::pillHeight);

    waveView_ = new WaveformPanelView(panel);
    waveView_->setGeometry(0, 0, OverlayPlacement::idleWidth, OverlayPlacement::pillHeight);
    QPointer<OverlayController> self(this);
    waveView_->onCancel = [self] {
        if (self && self->onCancel)
            self->onCancel();
    };
    waveView_->onAccept = [self] {
        if (self && self->onAccept)
            self->onAccept();
    };
    waveView_->onContextMenu = [self](const QPoint& at) {
        if (self && self->onContextMenu)
            self->onContextMenu(at);
    };

    panel_ = panel;
    shadow_ = std::make_unique<PillShadow>();
    positionInitial();
    panel->installEventFilter(this);
    X11Desktop::showOnAllDesktops(panel);
    updateShape();
}

void OverlayController::positionInitial()
{
    const Preferences& prefs = Preferences::shared();
    QList<QRect> screens;
    for (QScreen* screen : QGuiApplication::screens())
        screens << screen->geometry();
    std::optional<QRect> primary;
    if (QScreen* screen = QGuiApplication::primaryScreen())
        primary = screen->availableGeometry();
    const auto origin = OverlayPlacement::initialOrigin(prefs.doubleValue(QLatin1String(centerXKey)),
                                                        prefs.doubleValue(QLatin1String(topYKey)), screens, primary);
    if (origin)
        panel_->move(*origin);
}

void OverlayController::rememberPosition()
{
    if (!panel_)
        return;
    const QRect frame = panel_->geometry();
    Preferences::shared().setDouble(QLatin1String(centerXKey), OverlayPlacement::centerX(frame));
    Preferences::shared().setDouble(QLatin1String(topYKey), OverlayPlacement::topY(frame));
}

bool OverlayController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == panel_ && event->type() == QEvent::Move)
        rememberPosition();
    if (watched == panel_ && shadow_ &&
        (event->type() == QEvent::Move || event->type() == QEvent::Resize || event->type() == QEvent::Hide)) {
        shadow_->follow(*panel_);
    }
    return QObject::eventFilter(watched, event);
}

void OverlayController::updateShape()
{
    // Without a compositing manager translucent corners would show as black squares: cut the window
    // to its capsule instead.
    if (!panel_)
        return;
    if (X11Desktop::compositingActive()) {
        panel_->clearMask();
        return;
    }
    // Rasterised as the painter fills the capsule, so the cut follows the painted edge; a region made
    // from the outline's polygon keeps single pixels at the ends that show black.
    const QSize size = panel_->size();
    QBitmap shape(size);
    shape.fill(Qt::color0);
    QPainter painter(&shape);
    painter.setPen(Qt::NoPen);
    painter.setBrush(Qt::color1);
    painter.drawRoundedRect(QRectF(0, 0, size.width(), size.height()), size.height() * 0.5, size.height() * 0.5);
    painter.end();
    panel_->setMask(shape);
}

void OverlayController::resizePanel(int width)
{
    if (!panel_)
        return;
    panel_->setGeometry(OverlayPlacement::resized(panel_->geometry(), width));
    updateShape();
    if (waveView_)
        waveView_->setGeometry(0, 0, width, OverlayPlacement::pillHeight);
}

void OverlayController::bringToFront()
{
    panel_->setWindowOpacity(1.0);
    const bool first = !panel_->isVisible();
    panel_->show();
    if (shadow_)
        shadow_->follow(*panel_);
    panel_->raise();
    // Qt writes its own window states when it maps the window; ours go on top of them.
    if (first)
        X11Desktop::showOnAllDesktops(panel_);
}

void OverlayController::installPersistent()
{
    if (!panel_)
        build();
    isListening_ = false;
    resizePanel(OverlayPlacement::idleWidth);
    if (waveView_)
        waveView_->enterIdle();
    bringToFront();
}

void OverlayController::present(bool listening)
{
    if (!panel_)
        build();
    isListening_ = listening;
    resizePanel(wantButtons_ ? OverlayPlacement::expandedWidth : OverlayPlacement::idleWidth);
    if (waveView_) {
        if (listening)
            waveView_->enterListening(wantButtons_);
        else
            waveView_->enterProcessing(wantButtons_);
    }
    bringToFront();
}

void OverlayController::show()
{
    present(true);
}

void OverlayController::beginProcessing()
{
    present(false);
}

void OverlayController::setMode(bool toggle)
{
    wantButtons_ = toggle;
    if (waveView_) {
        waveView_->setShowButtons(toggle);
        const bool visible = toggle && waveView_->state() == WaveformPanelView::State::listening;
        waveView_->acceptButton()->setVisible(visible);
        waveView_->trashButton()->setVisible(visible);
        waveView_->layoutBars();
    }
    if (isListening_)
        resizePanel(toggle ? OverlayPlacement::expandedWidth : OverlayPlacement::idleWidth);
}

void OverlayController::resetToIdle()
{
    wantButtons_ = false;
    isListening_ = false;
    resizePanel(OverlayPlacement::idleWidth);
    if (waveView_)
        waveView_->enterIdle();
}

void OverlayController::setAmplitude(double level)
{
    if (waveView_)
        waveView_->setAmplitude(level);
}
