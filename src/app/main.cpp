#include "app/CleanupCommand.h"
#include "app/CommandLine.h"
#include "app/TranscribeCommand.h"
#include "storage/Diagnostics.h"
#include "ui/ScreenshotMode.h"

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

bool graphicalSessionAvailable()
{
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (!platform.isEmpty())
        return true;  // the user chose a platform (offscreen, xcb, …) explicitly
    return !qgetenv("DISPLAY").isEmpty() || !qgetenv("WAYLAND_DISPLAY").isEmpty();
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

    if (!graphicalSessionAvailable()) {
        return printLine(stderr,
                         QStringLiteral("tolvane: no graphical session (DISPLAY is not set); to transcribe a file "
                                        "instead, run: tolvane --transcribe FILE"),
                         1);
    }

    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TOLVANE_VERSION));
    app.setQuitOnLastWindowClosed(false);
    Diagnostics::log(QStringLiteral("bootstrap: launching Tolvane ") + QStringLiteral(TOLVANE_VERSION));
    return app.exec();
}
