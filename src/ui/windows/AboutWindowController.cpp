#include "ui/windows/AboutWindowController.h"

#include "ui/widgets/TaskbarPresence.h"
#include "ui/widgets/Theme.h"
#include "ui/windows/AboutView.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <QWidget>

AboutWindowController::AboutWindowController(QObject* parent) : QObject(parent) {}

AboutWindowController::~AboutWindowController() { delete window_; }

void AboutWindowController::show()
{
    if (!window_) {
        auto* window = new QWidget(nullptr, Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                                                Qt::WindowCloseButtonHint);
        window->setWindowTitle(QStringLiteral("About Tolvane"));
        window->setWindowIcon(QIcon(Theme::appIcon(64, 2.0)));
        auto* layout = new QVBoxLayout(window);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(new AboutView);
        window->setFixedSize(AboutView::width, AboutView::height);
        if (const QScreen* screen = QGuiApplication::primaryScreen()) {
            QRect frame = window->frameGeometry();
            frame.moveCenter(screen->availableGeometry().center());
            window->move(frame.topLeft());
        }
        window_ = window;
        TaskbarPresence::manage(window);
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
}
