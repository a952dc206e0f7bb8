#include "support/XServer.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

XServer::~XServer() { kill(); }

QString XServer::start()
{
    // Xvfb writes the number of the display it chose to a pipe it inherits.
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return QStringLiteral("no pipe for Xvfb's display number");
    xvfb_.setProcessChannelMode(QProcess::MergedChannels);
    xvfb_.setChildProcessModifier([fd = fds[1]] { ::fcntl(fd, F_SETFD, 0); });
    xvfb_.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QString::number(fds[1]), QStringLiteral("-screen"),
                                         QStringLiteral("0"), QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"),
                                         QStringLiteral("tcp"), QStringLiteral("-noreset")});
    ::close(fds[1]);
    QFile number;
    QByteArray digits;
    if (xvfb_.waitForStarted(5000) && number.open(fds[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        digits = number.readLine().trimmed();  // blocks until Xvfb is ready, or has ended
    else
        ::close(fds[0]);
    if (digits.isEmpty())
        return QStringLiteral("Xvfb did not start (package xvfb): ") + QString::fromLocal8Bit(xvfb_.readAll());
    display_ = QLatin1Char(':') + QString::fromLatin1(digits);
    return {};
}

void XServer::kill()
{
    if (xvfb_.state() == QProcess::NotRunning)
        return;
    xvfb_.kill();
    xvfb_.waitForFinished(5000);
}
