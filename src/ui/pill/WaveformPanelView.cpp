#include "ui/pill/WaveformPanelView.h"

#include "ui/widgets/Theme.h"

#include <QAbstractButton>
#include <QContextMenuEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>
#include <numbers>

namespace {

const QColor kCapsule = QColor::fromRgbF(0.0f, 0.0f, 0.0f, 0.82f);
const QColor kCapsuleBorder = QColor::fromRgbF(1.0f, 1.0f, 1.0f, 0.28f);
const QColor kButtonBackground = QColor::fromRgbF(1.0f, 1.0f, 1.0f, 0.15f);
const QColor kTrashTint = QColor::fromRgbF(1.0f, 1.0f, 1.0f, 0.9f);

// A round 14-point button with a drawn glyph: no font on the system is guaranteed to have a trash can.
class PillButton final : public QAbstractButton {
public:
    enum class Glyph : quint8 { check, trash };

    PillButton(Glyph glyph, const QString& tip, QWidget* parent) : QAbstractButton(parent), glyph_(glyph)
    {
        setToolTip(tip);
        setAccessibleName(tip);
        setFocusPolicy(Qt::NoFocus);
        setCursor(Qt::ArrowCursor);
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        const QRectF r = QRectF(rect());
        QColor bg = kButtonBackground;
        if (isDown())
            bg.setAlphaF(0.32f);
        else if (underMouse())
            bg.setAlphaF(0.24f);
        p.setPen(Qt::NoPen);
        p.setBrush(bg);
        p.drawRoundedRect(r, r.width() * 0.5, r.height() * 0.5);

        // Glyphs are laid out on a 14-point square and scaled with the button, 9 points tall.
        p.scale(r.width() / 14.0, r.height() / 14.0);
        if (glyph_ == Glyph::check) {
            QPen pen(brandGreen(), 1.7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
            p.setPen(pen);
            p.setBrush(Qt::NoBrush);
            QPainterPath tick;
            tick.moveTo(4.1, 7.3);
            tick.lineTo(6.1, 9.3);
            tick.lineTo(9.9, 4.9);
            p.drawPath(tick);
        } else {
            p.setPen(Qt::NoPen);
            p.setBrush(kTrashTint);
            // Handle, lid, then a body that narrows towards the bottom.
            p.drawRoundedRect(QRectF(5.9, 2.6, 2.2, 1.4), 0.5, 0.5);
            p.drawRoundedRect(QRectF(3.9, 3.6, 6.2, 1.3), 0.5, 0.5);
            QPainterPath body;
            body.moveTo(4.5, 5.5);
            body.lineTo(9.5, 5.5);
            body.lineTo(9.0, 10.6);
            body.quadTo(8.95, 11.3, 8.3, 11.3);
            body.lineTo(5.7, 11.3);
            body.quadTo(5.05, 11.3, 5.0, 10.6);
            body.closeSubpath();
            p.drawPath(body);
            // Grooves in the body.
            p.setPen(QPen(QColor::fromRgbF(0, 0, 0, 0.55f), 0.6, Qt::SolidLine, Qt::RoundCap));
            p.drawLine(QPointF(6.3, 6.6), QPointF(6.4, 10.2));
            p.drawLine(QPointF(7.7, 6.6), QPointF(7.6, 10.2));
        }
    }

private:
    Glyph glyph_;
};

}  // namespace

WaveformPanelView::WaveformPanelView(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_TranslucentBackground);
    setFocusPolicy(Qt::NoFocus);
    setMouseTracking(false);

    frameClock_.setInterval(16);
    frameClock_.setTimerType(Qt::PreciseTimer);
    connect(&frameClock_, &QTimer::timeout, this, &WaveformPanelView::step);

    acceptButton_ = new PillButton(PillButton::Glyph::check, QStringLiteral("Insert (done)"), this);
    trashButton_ = new PillButton(PillButton::Glyph::trash, QStringLiteral("Discard (Esc)"), this);
    connect(acceptButton_, &QAbstractButton::clicked, this, &WaveformPanelView::acceptTapped);
    connect(trashButton_, &QAbstractButton::clicked, this, &WaveformPanelView::trashTapped);
    acceptButton_->hide();
    trashButton_->hide();

    anim_.restBars();
    layoutAll();
}

WaveformPanelView::~WaveformPanelView() = default;

QAbstractButton* WaveformPanelView::acceptButton() const { return acceptButton_; }
QAbstractButton* WaveformPanelView::trashButton() const { return trashButton_; }

void WaveformPanelView::setAmplitude(double level)
{
    anim_.amplitude = std::clamp(level, 0.0, 1.0);
}

bool WaveformPanelView::eitherButtonShown() const
{
    return !acceptButton_->isHidden() || !trashButton_->isHidden();
}

void WaveformPanelView::layoutAll()
{
    const QSizeF s = QSizeF(size());
    acceptButton_->setGeometry(WaveformGeometry::acceptButtonRect(s).toRect());
    trashButton_->setGeometry(WaveformGeometry::trashButtonRect(s).toRect());
    layoutBars();
    layoutSpinner();
}

void WaveformPanelView::layoutBars()
{
    const QSizeF s = QSizeF(size());
    const bool buttons = eitherButtonShown();
    for (int i = 0; i < WaveformGeometry::barCount; ++i)
        barRects_[i] = WaveformGeometry::barRect(i, s, anim_.currentHeights[i], buttons);
    update();
}

void WaveformPanelView::layoutSpinner()
{
    spinnerRect_ = WaveformGeometry::spinnerRect(QSizeF(size()), eitherButtonShown());
    update();
}

void WaveformPanelView::restBars()
{
    anim_.restBars();
    layoutBars();
}

void WaveformPanelView::applyBars(float opacity)
{
    barOpacity_ = opacity;
    update();
}

void WaveformPanelView::startLink()
{
    if (!frameClock_.isActive())
        frameClock_.start();
}

void WaveformPanelView::stopLink()
{
    frameClock_.stop();
    anim_.resetLevel();
}

void WaveformPanelView::enterIdle()
{
    state_ = State::idle;
    stopLink();
    showButtons_ = false;
    acceptButton_->hide();
    trashButton_->hide();
    spinnerVisible_ = false;
    barsVisible_ = true;
    applyBars(0.4f);
    restBars();
}

void WaveformPanelView::enterListening(bool showButtons)
{
    state_ = State::listening;
    showButtons_ = showButtons;
    acceptButton_->setVisible(showButtons);
    trashButton_->setVisible(showButtons);
    spinnerVisible_ = false;
    barsVisible_ = true;
    applyBars(1.0f);
    startLink();
}

void WaveformPanelView::enterProcessing(bool showButtons)
{
    state_ = State::processing;
    showButtons_ = showButtons;
    acceptButton_->setVisible(showButtons);
    trashButton_->setVisible(showButtons);
    barsVisible_ = false;
    spinnerVisible_ = true;
    anim_.spinnerOpacity = 1.0f;
    layoutSpinner();
    startLink();
}

void WaveformPanelView::step()
{
    if (state_ == State::processing) {
        anim_.stepProcessing();
    } else {
        anim_.stepListening(height());
        // Each bar keeps its x and width; only its height and vertical centre follow the level.
        const double mid = height() * 0.5;
        for (int i = 0; i < WaveformGeometry::barCount; ++i) {
            const double h = anim_.currentHeights[i];
            QRectF& r = barRects_[i];
            r = QRectF(r.x(), mid - h * 0.5, r.width(), h);
        }
    }
    update();
}

void WaveformPanelView::acceptTapped()
{
    if (onAccept)
        onAccept();
}

void WaveformPanelView::trashTapped()
{
    if (onCancel)
        onCancel();
}

void WaveformPanelView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    layoutAll();
}

void WaveformPanelView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF r = QRectF(rect());
    const double radius = r.height() * 0.5;

    // The capsule, its hairline border drawn inside the bounds.
    p.setPen(Qt::NoPen);
    p.setBrush(kCapsule);
    p.drawRoundedRect(r, radius, radius);
    p.setPen(QPen(kCapsuleBorder, 1.0));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(r.adjusted(0.5, 0.5, -0.5, -0.5), radius - 0.5, radius - 0.5);

    if (barsVisible_) {
        p.setPen(Qt::NoPen);
        p.setBrush(brandGreen());
        p.setOpacity(barOpacity_);
        for (const QRectF& bar : barRects_)
            p.drawRoundedRect(bar, std::min(2.0, bar.width() * 0.5), std::min(2.0, bar.height() * 0.5));
        p.setOpacity(1.0);
    }

    if (spinnerVisible_ && spinnerRect_.width() > 0) {
        // A three-quarter ring from the bottom round to the left, the gap at the lower left, turned
        // by the spinner's angle (negative angles turn clockwise on screen).
        const double d = spinnerRect_.width();
        const double rad = WaveformGeometry::spinnerRadius(d);
        p.save();
        p.setOpacity(anim_.spinnerOpacity);
        p.translate(spinnerRect_.center());
        p.rotate(-anim_.spinnerAngle * 180.0 / std::numbers::pi);
        QPainterPath ring;
        const QRectF circle(-rad, -rad, 2 * rad, 2 * rad);
        ring.arcMoveTo(circle, 270.0);
        ring.arcTo(circle, 270.0, 270.0);
        p.setPen(QPen(brandGreen(), WaveformGeometry::spinnerLineWidth, Qt::SolidLine, Qt::RoundCap));
        p.setBrush(Qt::NoBrush);
        p.drawPath(ring);
        p.restore();
    }
}

void WaveformPanelView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    dragOffset_ = event->globalPosition().toPoint() - window()->pos();
    event->accept();
}

void WaveformPanelView::contextMenuEvent(QContextMenuEvent* event)
{
    if (onContextMenu)
        onContextMenu(event->globalPos());
    event->accept();
}

void WaveformPanelView::mouseMoveEvent(QMouseEvent* event)
{
    if (!dragOffset_ || !(event->buttons() & Qt::LeftButton)) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    window()->move(event->globalPosition().toPoint() - *dragOffset_);
    event->accept();
}

void WaveformPanelView::mouseReleaseEvent(QMouseEvent* event)
{
    dragOffset_.reset();
    QWidget::mouseReleaseEvent(event);
}
