#include "app/CleanupCommand.h"

#include "text/CleanupEngine.h"

#include <QCoreApplication>
#include <QFile>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <cstdio>
#include <optional>

namespace {

void put(FILE* stream, const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QCoro::Task<> cleanUp(QByteArray input, CleanupMode mode)
{
    // The line feed that ends the last line of input belongs to the terminal, not to the text.
    QString text = QString::fromUtf8(input);
    if (text.endsWith(QLatin1Char('\n')))
        text.chop(text.endsWith(QLatin1String("\r\n")) ? 2 : 1);

    CleanupEngine engine;
    if (mode != CleanupMode::raw) {
        const CleanupEngine::Availability model = co_await engine.checkAvailability();
        if (!model.available) {
            put(stderr, QStringLiteral("tolvane: no language model available, printing the text unchanged: %1\n")
                            .arg(model.reason)
                            .toUtf8());
            put(stdout, input);
            QCoreApplication::exit(0);
            co_return;
        }
    }
    const QString result = co_await engine.process(text, mode);
    put(stdout, mode == CleanupMode::raw ? input : (result + QLatin1Char('\n')).toUtf8());
    QCoreApplication::exit(0);
}

}  // namespace

int runCleanupCommand(int& argc, char** argv, const QString& modeName)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));

    const std::optional<CleanupMode> mode = CleanupModes::fromRawValue(modeName);
    if (!mode) {
        put(stderr, QStringLiteral("tolvane: unknown cleanup mode “%1”; use raw, tidy, bullets or summary\n")
                        .arg(modeName)
                        .toUtf8());
        return 2;
    }

    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        put(stderr, "tolvane: cannot read standard input\n");
        return 1;
    }
    const QByteArray input = in.readAll();

    // Started from the event loop, so its exit() is seen even when it finishes without waiting.
    std::optional<QCoro::Task<>> task;
    QTimer::singleShot(0, &app, [&] { task.emplace(cleanUp(input, *mode)); });
    return app.exec();
}
