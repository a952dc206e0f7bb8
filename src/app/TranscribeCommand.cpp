#include "app/TranscribeCommand.h"

#include "audio/AudioEngineController.h"
#include "audio/FileSource.h"
#include "speech/TranscriberController.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"

#include <QCoreApplication>
#include <QTimer>

#include <qcoro/qcorosignal.h>

#include <cstdio>
#include <mutex>

namespace {

void printLine(FILE* stream, const QString& text)
{
    const QByteArray bytes = (text + QLatin1Char('\n')).toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QString describe(const std::exception& error)
{
    if (const auto* e = dynamic_cast<const CollaboratorError*>(&error))
        return e->localizedDescription();
    return QString::fromUtf8(error.what());
}

int fail(const QString& message)
{
    printLine(stderr, QStringLiteral("tolvane: ") + message);
    return 1;
}

}  // namespace

namespace TranscribeCommand {

QCoro::Task<int> run(Options options)
{
    // The file is read first, so a bad file is reported before any model is loaded.
    auto* source = new FileSource(options.file, FileSource::Pacing::asFastAsPossible);
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    try {
        source->inputFormat();
    } catch (const std::exception& e) {
        co_return fail(describe(e));
    }

    TranscriberController transcriber;
    QString locale = options.locale;  // (no conditional expression: GCC 12 coroutines mishandle its temporaries)
    if (locale.isEmpty())
        locale = Preferences::shared().localeIdentifier();
    std::mutex printing;
    if (options.partials) {
        transcriber.onPartial = [&printing](QString committed, QString volatileText) {
            std::lock_guard lock(printing);
            printLine(stdout, QStringLiteral("partial: ") + (committed + QLatin1Char(' ') + volatileText).trimmed());
        };
    }

    // The same buffer route as a dictation's: converted blocks go straight into the input stream.
    audio.onBuffer = [&transcriber](AudioBuffer buffer) {
        if (const auto input = transcriber.inputContinuation())
            input->yield(std::move(buffer));
    };

    bool delivered = false;
    QObject::connect(source, &FileSource::finished, source, [&delivered] { delivered = true; });
    try {
        QCoro::Task<void> preparing = transcriber.prepare(locale);
        co_await preparing;
        audio.setTargetFormat(transcriber.analyzerFormat());
        QCoro::Task<void> starting = transcriber.start();
        co_await starting;
        audio.start();
    } catch (const std::exception& e) {
        co_return fail(describe(e));
    }
    if (!delivered)
        co_await qCoro(source, &FileSource::finished);
    audio.stop();
    QCoro::Task<QString> finishing = transcriber.finish();
    const QString text = co_await finishing;
    {
        std::lock_guard lock(printing);
        printLine(stdout, text);
        printLine(stderr, QStringLiteral("tolvane: transcribed by ") + transcriber.answeredBy());
    }
    co_return 0;
}

int main(int argc, char** argv, const Options& options)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
    QCoreApplication::setOrganizationName(QStringLiteral("Tolvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TOLVANE_VERSION));
    // Standard error carries this command's own messages; the log file keeps the details.
    Diagnostics::setMirrored(false);

    int status = 1;
    bool done = false;
    auto runner = [](Options o, int& out, bool& finished) -> QCoro::Task<> {
        QCoro::Task<int> task = run(std::move(o));
        out = co_await task;
        finished = true;
        QCoreApplication::exit(0);
    };
    QCoro::Task<> running = runner(options, status, done);
    if (!done)  // a bad file fails before anything is awaited, and before the loop would run
        app.exec();
    Diagnostics::flush();
    return status;
}

}  // namespace TranscribeCommand
