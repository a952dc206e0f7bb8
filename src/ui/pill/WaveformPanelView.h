#pragma once

#include "ui/pill/WaveformAnimation.h"

#include <QPoint>
#include <QTimer>
#include <QWidget>

#include <array>
#include <functional>
#include <optional>

class QAbstractButton;

// The pill's content: a dark translucent capsule with three green bars, a round insert (✓) button at
// the left end and a discard (trash) button at the right end, and a turning ring while processing.
// A 16 ms frame clock runs only while listening or processing. Dragging the background moves the
// window the view sits in.
class WaveformPanelView final : public QWidget {
    Q_OBJECT
public:
    enum class State : quint8 { idle, listening, processing };

    explicit WaveformPanelView(QWidget* parent = nullptr);
    ~WaveformPanelView() override;

    std::function<void()> onCancel;
    std::function<void()> onAccept;
    std::function<void(const QPoint&)> onContextMenu;  // a right-click, at this global position

    State state() const { return state_; }
    void enterIdle();
    void enterListening(bool showButtons);
    void enterProcessing(bool showButtons);

    // The level for the next frame, 0 to 1 (clamped).
    void setAmplitude(double level);
    double amplitude() const { return anim_.amplitude; }

    bool showButtons() const { return showButtons_; }
    void setShowButtons(bool on) { showButtons_ = on; }
    QAbstractButton* acceptButton() const;
    QAbstractButton* trashButton() const;

    // Places the bars from their current heights between the insets the buttons leave.
    void layoutBars();
    // One animation frame; the frame clock calls it.
    void step();

    // What is drawn, for tests and screenshots.
    bool isAnimating() const { return frameClock_.isActive(); }
    const WaveformAnimation& animation() const { return anim_; }
    std::array<QRectF, WaveformGeometry::barCount> barRects() const { return barRects_; }
    bool barsVisible() const { return barsVisible_; }
    float barOpacity() const { return barOpacity_; }
    bool spinnerVisible() const { return spinnerVisible_; }
    QRectF spinnerRect() const { return spinnerRect_; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    bool eitherButtonShown() const;
    void layoutAll();
    void layoutSpinner();
    void restBars();
    void applyBars(float opacity);
    void startLink();
    void stopLink();
    void acceptTapped();
    void trashTapped();

    State state_ = State::idle;
    bool showButtons_ = false;
    WaveformAnimation anim_;
    std::array<QRectF, WaveformGeometry::barCount> barRects_{};
    bool barsVisible_ = true;
    float barOpacity_ = 1.0f;
    bool spinnerVisible_ = false;
    QRectF spinnerRect_;
    QTimer frameClock_;
    QAbstractButton* acceptButton_ = nullptr;
    QAbstractButton* trashButton_ = nullptr;
    std::optional<QPoint> dragOffset_;
};
