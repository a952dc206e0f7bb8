#include "support/Fakes.h"

#include <qcoro/qcorosignal.h>

QCoro::Task<> Gate::pass()
{
    if (closed)
        co_await qCoro(this, &Gate::opened);
}

QCoro::Task<void> FakeTranscriber::start()
{
    journal.add(QStringLiteral("transcriber.start"));
    co_await startGate.pass();
    if (!startFailure.isEmpty())
        throw CollaboratorError(startFailure);
    ++openSessions;
    input = std::make_shared<FakeInput>();
}

QCoro::Task<QString> FakeTranscriber::finish()
{
    journal.add(QStringLiteral("transcriber.finish"));
    input.reset();
    co_await finishGate.pass();
    if (openSessions > 0)
        --openSessions;
    if (!finishFailure.isEmpty())
        throw CollaboratorError(finishFailure);
    co_return finalText;
}

QCoro::Task<void> FakeTranscriber::cancel()
{
    journal.add(QStringLiteral("transcriber.cancel"));
    input.reset();
    if (openSessions > 0)
        --openSessions;
    co_return;
}

QCoro::Task<void> FakeTranscriber::prepare(QString locale)
{
    prepared << locale;
    if (!prepareFailure.isEmpty())
        throw CollaboratorError(prepareFailure);
    format = AudioFormat{16000, 1};
    co_return;
}
