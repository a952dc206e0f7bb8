#pragma once

#include "core/Collaborators.h"

#include <QObject>
#include <QPointer>

#include <memory>
#include <QWidget>

class PillShadow;
class WaveformPanelView;

// The pill: a small frameless window above all others, on every desktop, that never takes focus and
// can be dragged anywhere. Its place is remembered under "overlayCenterX" (horizontal centre) and
// "overlayTopY" (top edge), both in Qt's global coordinates, and restored when it still lies on a
// screen. The content is a WaveformPanelView.
class OverlayController final : public QObject, public AbstractOverlay {
    Q_OBJECT
public:
    static constexpr const char* centerXKey = "overlayCenterX";
    static constexpr const char* topYKey = "overlayTopY";

    explicit OverlayController(QObject* parent = nullptr);
    ~OverlayController() override;

    void installPersistent() override;
    void show() override;
    void setMode(bool toggle) override;
    void beginProcessing() override;
    void resetToIdle() override;
    void setAmplitude(double level) override;

    // Made on first use, then kept for the life of the controller.
    QWidget* panel() const { return panel_; }
    WaveformPanelView* waveView() const { return waveView_; }
    PillShadow* shadow() const { return shadow_.get(); }
    bool wantButtons() const { return wantButtons_; }
    bool isListening() const { return isListening_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void build();
    void present(bool listening);
    void bringToFront();
    void resizePanel(int width);
    void positionInitial();
    void updateShape();
    void rememberPosition();

    QPointer<QWidget> panel_;
    std::unique_ptr<PillShadow> shadow_;
    WaveformPanelView* waveView_ = nullptr;
    bool wantButtons_ = false;
    bool isListening_ = false;
};
