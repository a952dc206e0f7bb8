#include "app/PermissionPrompt.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QProcess>
#include <QStandardPaths>
#include <QVBoxLayout>

QPointer<QWidget> PermissionPrompt::current_;

// What stands in for the three permissions on Linux: a microphone the sound server offers, an
// installed speech model, and an X display with XInput2 to watch the keys on.
const PermissionPrompt::Texts PermissionPrompt::microphone{
    QStringLiteral("Microphone access needed"),
    QStringLiteral("Connect a microphone, or enable one in your desktop's sound settings. Tolvane carries on by "
                   "itself as soon as one is there."),
    QStringLiteral("Open Sound Settings"),
    {QStringLiteral("gnome-control-center sound"), QStringLiteral("pavucontrol"), QStringLiteral("systemsettings kcm_pulseaudio"),
     QStringLiteral("xfce4-pulseaudio-plugin")}};
const PermissionPrompt::Texts PermissionPrompt::speech{
    QStringLiteral("Speech Recognition needed"),
    QStringLiteral("Install a speech model for your language (the package pocketsphinx-en-us for English), then relaunch."),
    QStringLiteral("Open Speech Settings"), {}};
const PermissionPrompt::Texts PermissionPrompt::accessibility{
    QStringLiteral("Enable Tolvane in Accessibility"),
    QStringLiteral("Tolvane needs an X11 session with the XInput2 extension so it can capture the Alt key and paste. "
                   "It starts working the moment the display is available — no relaunch needed."),
    QStringLiteral("Open Accessibility Settings"), {}};

const PermissionPrompt::Texts PermissionPrompt::inputDevices{
    QStringLiteral("Allow Tolvane to read the keyboard"),
    QStringLiteral("In a Wayland session Tolvane reads the Alt key from /dev/input, which takes membership of the "
                   "input group. Run: sudo usermod -aG input $USER — then log out and in. Tolvane's udev rule, "
                   "installed with it, gives that group /dev/uinput too, so Alt+Space stays out of the application. "
                   "It starts working the moment it can read the keys — no relaunch needed."),
    QStringLiteral("Open Tolvane Settings"), {}};

namespace {

void openSettings(const QStringList& commands, bool ownAsFallback)
{
    for (const QString& command : commands) {
        QStringList parts = command.split(QLatin1Char(' '));
        const QString program = QStandardPaths::findExecutable(parts.takeFirst());
        if (!program.isEmpty() && QProcess::startDetached(program, parts))
            return;
    }
    if (ownAsFallback && PermissionPrompt::showOwnSettings)
        PermissionPrompt::showOwnSettings();
}

}  // namespace

void PermissionPrompt::show(const Texts& texts)
{
    dismiss();
    auto* panel = new QWidget(nullptr, Qt::Tool | Qt::WindowStaysOnTopHint | Qt::WindowCloseButtonHint | Qt::WindowTitleHint);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setAttribute(Qt::WA_ShowWithoutActivating);
    panel->setWindowTitle(QStringLiteral("Tolvane"));
    panel->setObjectName(QStringLiteral("PermissionPrompt"));

    auto* title = new QLabel(texts.title, panel);
    QFont titleFont = title->font();
    titleFont.setPointSizeF(14);
    titleFont.setWeight(QFont::DemiBold);
    title->setFont(titleFont);

    auto* message = new QLabel(texts.message, panel);
    message->setWordWrap(true);
    message->setMaximumWidth(308);
    QFont messageFont = message->font();
    messageFont.setPointSizeF(12);
    message->setFont(messageFont);
    message->setForegroundRole(QPalette::PlaceholderText);

    auto* quit = new QPushButton(QStringLiteral("Quit"), panel);
    auto* open = new QPushButton(texts.openButtonTitle, panel);
    open->setDefault(true);
    QObject::connect(quit, &QPushButton::clicked, qApp, &QApplication::quit);
    const QStringList commands = texts.settingsCommands;
    QObject::connect(open, &QPushButton::clicked, panel, [commands] { openSettings(commands, true); });

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    buttons->addWidget(quit, 1);
    buttons->addWidget(open, 1);

    auto* column = new QVBoxLayout(panel);
    column->setSpacing(12);
    column->setContentsMargins(16, 16, 16, 16);
    column->addWidget(title);
    column->addWidget(message);
    column->addLayout(buttons);

    panel->resize(340, 200);
    panel->adjustSize();
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        panel->move(screen->availableGeometry().topLeft() + QPoint(24, 24));
    panel->show();
    current_ = panel;
    openSettings(texts.settingsCommands, false);
}

void PermissionPrompt::dismiss()
{
    if (current_)
        current_->close();
    current_ = nullptr;
}

QWidget* PermissionPrompt::currentPanel() { return current_.data(); }
