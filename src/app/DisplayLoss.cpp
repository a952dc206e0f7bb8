#include "app/DisplayLoss.h"

#include "storage/Diagnostics.h"
#include "storage/TranscriptStore.h"

#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

namespace DisplayLoss {

namespace {
QtMessageHandler previous = nullptr;

void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (!isDisplayLost(message)) {
        if (previous)
            previous(type, context, message);
        return;
    }
    // Qt would end the process with exit(1) as soon as this returns; the log and the history are
    // written by threads of their own, which exit() would not wait for. Nor would it stop the
    // audio thread, which then reads from Qt Multimedia's sound-server state as exit() destroys
    // it: once what matters is on disk the process ends at once, and the kernel closes the sound
    // server's connection with its streams.
    Diagnostics::log(logLine(message));
    TranscriptStore::shared().waitForWrites();
    Diagnostics::flush();
    std::fflush(nullptr);
    std::_Exit(1);
}
}  // namespace

bool isDisplayLost(const QString& qtMessage) { return qtMessage.startsWith(QLatin1String("The X11 connection broke")); }

QString logLine(const QString& qtMessage)
{
    const QString error = qtMessage.section(QLatin1Char('('), 1).section(QLatin1Char(')'), 0, 0);
    return QStringLiteral("bootstrap: the X display went away (%1) — Tolvane ends").arg(error.isEmpty() ? qtMessage : error);
}

void install() { previous = qInstallMessageHandler(handle); }

}  // namespace DisplayLoss
