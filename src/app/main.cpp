#include "app/Application.h"
#include "app/CleanupCommand.h"
#include "app/CommandLine.h"
#include "app/DisplayLoss.h"
#include "app/SingleInstance.h"
#include "app/TerminationSignals.h"
#include "app/TranscribeCommand.h"
#include "storage/Diagnostics.h"
#include "ui/widgets/Theme.h"
#include "ui/windows/ScreenshotMode.h"
#include "ui/x11/X11Desktop.h"

#include <QApplication>
#include <QCoreApplication>

#include <cstdio>

namespace {

int printLine(FILE* stream, const QString& text, int code)
{
    const QByteArray bytes = (text.endsWith(QLatin1Char('\n')) ? text : text + QLatin1Char('\n')).toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    return code;
}

// Why no graphical session can be used, or empty when one can. Asked before Qt is started, since
// Qt ends the process when its display cannot be opened.
QString missingGraphicalSession()
{
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (!platform.isEmpty() && !platform.startsWith("xcb"))
        return {};  // the user chose another platform (offscreen, wayland, …) explicitly
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty()) {
        if (!qgetenv("WAYLAND_DISPLAY").isEmpty() && platform.isEmpty())
            return QStringLiteral("this Wayland session offers no X11 display (DISPLAY is not set)");
        return QStringLiteral("no graphical session (DISPLAY is not set)");
    }
    if (!X11Desktop::canOpenDisplay(display))
        return QStringLiteral("cannot open the display %1").arg(QString::fromLocal8Bit(display));
    return {};
}

}  // namespace

int main(int argc, char** argv)
{
    QStringList args;
    for (int i = 0; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    const CommandLine cl = CommandLine::parse(args);

    switch (cl.action) {
    case CommandLine::Action::help:
        return printLine(stdout, CommandLine::helpText(), 0);
    case CommandLine::Action::version:
        return printLine(stdout, QStringLiteral("Tolvane " TOLVANE_VERSION), 0);
    case CommandLine::Action::quit: {
        QCoreApplication app(argc, argv);
        const bool running = SingleInstance().notifyRunningInstance(SingleInstance::Request::quit);
        return printLine(stdout, running ? QStringLiteral("Tolvane was asked to quit.") : QStringLiteral("Tolvane is not running."), 0);
    }
    case CommandLine::Action::error:
        return printLine(stderr, QStringLiteral("tolvane: ") + cl.error, 2);
    case CommandLine::Action::shots: {
        ScreenshotMode::preparePlatform();  // offscreen when no display answers
        QApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
        QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));
        QCoreApplication::setApplicationVersion(QStringLiteral(TOLVANE_VERSION));
        return ScreenshotMode::run(cl.argument.isEmpty() ? ScreenshotMode::defaultOutputDir : cl.argument);
    }
    case CommandLine::Action::cleanup:
        return runCleanupCommand(argc, argv, cl.argument);
    case CommandLine::Action::transcribe:
        return TranscribeCommand::main(argc, argv, {cl.argument, cl.locale, cl.partials});
    default:
        break;
    }

    if (const QString why = missingGraphicalSession(); !why.isEmpty()) {
        return printLine(stderr,
                         QStringLiteral("tolvane: %1; to transcribe a sound file instead, run: tolvane --transcribe FILE")
                             .arg(why),
                         1);
    }

    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TOLVANE_VERSION));
    app.setQuitOnLastWindowClosed(false);
    DisplayLoss::install();
    TerminationSignals::install();
    app.setWindowIcon(QIcon(Theme::appIcon(256)));
    Application tolvane;
    if (!tolvane.launch(cl.openSettings)) {
        printLine(stdout, QStringLiteral("Tolvane is already running; its Settings window was brought forward."), 0);
        return 0;
    }
    return app.exec();
}
