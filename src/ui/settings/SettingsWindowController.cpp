#include "ui/settings/SettingsWindowController.h"

#include "ui/settings/SettingsView.h"
#include "ui/widgets/TaskbarPresence.h"
#include "ui/widgets/Theme.h"

#include <QApplication>
#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

namespace {

void centreOnScreen(QWidget* window)
{
    const QScreen* screen = window->screen() ? window->screen() : QGuiApplication::primaryScreen();
    if (!screen)
        return;
    QRect frame = window->frameGeometry();
    frame.moveCenter(screen->availableGeometry().center());
    window->move(frame.topLeft());
}

}  // namespace

SettingsWindowController::SettingsWindowController(SettingsServices services, QObject* parent)
    : QObject(parent), services_(std::move(services)), closeWork_(new QTimer(this))
{
    closeWork_->setSingleShot(true);
    closeWork_->setInterval(hideDelayMilliseconds);
    connect(closeWork_, &QTimer::timeout, this, [this] {
        if (!window_)
            return;
        // A dialog or popup of the window itself (the clear confirmation, a picker's list) keeps it.
        for (QWidget* w = QApplication::activeWindow(); w; w = w->parentWidget()) {
            if (w == window_)
                return;
        }
        if (QApplication::activePopupWidget())
            return;
        window_->hide();
    });
}

SettingsWindowController::~SettingsWindowController()
{
    delete window_;
}

void SettingsWindowController::build()
{
    auto* window = new QWidget(nullptr, Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                                            Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint);
    window->setWindowTitle(QStringLiteral("Tolvane Settings"));
    window->setWindowIcon(QIcon(Theme::appIcon(64, 2.0)));
    window->setAttribute(Qt::WA_DeleteOnClose, false);  // closing only hides it
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    QPointer<SettingsWindowController> self(this);
    view_ = new SettingsView([self] { if (self) self->reassert(); }, SettingsView::Pane::general, services_);
    layout->addWidget(view_);
    window->setFixedSize(SettingsView::width, SettingsView::contentHeight());
    window->installEventFilter(this);
    window_ = window;
    TaskbarPresence::manage(window);
    centreOnScreen(window);
}

void SettingsWindowController::show()
{
    if (!window_)
        build();
    closeWork_->stop();
    centreOnScreen(window_);
    window_->show();
    window_->raise();
    window_->activateWindow();
}

bool SettingsWindowController::isKeyWindow() const { return window_ && window_->isActiveWindow(); }

void SettingsWindowController::reassert()
{
    QMetaObject::invokeMethod(this, [this] { bringToFront(3); }, Qt::QueuedConnection);
}

void SettingsWindowController::bringToFront(int retries)
{
    closeWork_->stop();
    if (!window_)
        return;
    window_->show();
    window_->raise();
    window_->activateWindow();
    // A window just re-created (new taskbar presence) may miss the first activation while the
    // server still settles focus; ask again a little later.
    if (retries > 0) {
        QTimer::singleShot(100, this, [this, retries] {
            if (window_ && window_->isVisible() && !window_->isActiveWindow())
                bringToFront(retries - 1);
        });
    }
}

bool SettingsWindowController::hidePending() const { return closeWork_->isActive(); }

bool SettingsWindowController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == window_) {
        if (event->type() == QEvent::WindowDeactivate)
            windowDidResignKey();
        else if (event->type() == QEvent::WindowActivate)
            windowDidBecomeKey();
    }
    return QObject::eventFilter(watched, event);
}

void SettingsWindowController::windowDidResignKey() { closeWork_->start(); }

void SettingsWindowController::windowDidBecomeKey() { closeWork_->stop(); }
