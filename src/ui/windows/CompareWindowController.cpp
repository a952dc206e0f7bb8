#include "ui/windows/CompareWindowController.h"

#include "ui/widgets/TaskbarPresence.h"
#include "ui/widgets/Theme.h"
#include "ui/windows/CompareView.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>
#include <QWidget>

int CompareWindowController::contentHeight(std::optional<int> visibleScreenHeight)
{
    if (!visibleScreenHeight)
        return 736;
    return std::min(std::max(*visibleScreenHeight - 24, 420), 760);
}

CompareWindowController::CompareWindowController(QObject* parent) : QObject(parent) {}

CompareWindowController::~CompareWindowController() { delete window_; }

void CompareWindowController::arm()
{
    model_.setArmed(true);
    model_.setStatus(CompareModel::instructionText());
    model_.setRaw(QString());
    model_.setTidy(QString());
    model_.setBullets(QString());
    model_.setSummary(QString());
    show();
}

void CompareWindowController::build()
{
    // Stays above other applications' windows while the user dictates into them.
    auto* window = new QWidget(nullptr, Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                                            Qt::WindowCloseButtonHint | Qt::WindowMaximizeButtonHint |
                                            Qt::WindowStaysOnTopHint);
    window->setWindowTitle(QStringLiteral("Compare Cleanup Modes"));
    window->setWindowIcon(QIcon(Theme::appIcon(64, 2.0)));
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new CompareView(model_));
    const QScreen* screen = QGuiApplication::primaryScreen();
    window->resize(720, contentHeight(screen ? std::optional<int>(screen->availableGeometry().height()) : std::nullopt));
    if (screen) {
        QRect frame = window->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window->move(frame.topLeft());
    }
    window_ = window;
    TaskbarPresence::manage(window);
}

void CompareWindowController::show()
{
    if (!window_)
        build();
    window_->show();
    window_->raise();
    window_->activateWindow();
}
