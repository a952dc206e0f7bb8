#include "support/ClipboardClient.h"

#include "support/TestSupport.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QRandomGenerator>

ClipboardClient::ClipboardClient()
{
    process_.setProgram(QStringLiteral(TOLVANE_CLIPBOARD_CLIENT));
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    connect(&process_, &QProcess::readyReadStandardOutput, this, [this] { output_.append(process_.readAllStandardOutput()); });
}

ClipboardClient::~ClipboardClient()
{
    if (process_.state() != QProcess::NotRunning)
        process_.write("quit\n");
    TestSupport::stop(process_);
}

bool ClipboardClient::start()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    process_.setProcessEnvironment(env);
    process_.start();
    return process_.waitForStarted(5000) && command("changes", "changes");
}

std::optional<QByteArray> ClipboardClient::command(const QByteArray& line, const QByteArray& reply)
{
    output_.clear();
    process_.write(line + '\n');
    if (!TestSupport::waitUntil([&] { return output_.endsWith('\n'); }, 10000) || !output_.startsWith(reply))
        return std::nullopt;
    return output_.mid(reply.size()).trimmed();
}

bool ClipboardClient::own(const QMap<QString, QByteArray>& formats)
{
    QByteArray line = "own";
    int i = 0;
    for (auto it = formats.begin(); it != formats.end(); ++it) {
        const QString path = dir_.filePath(QStringLiteral("own%1").arg(i++));
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) || f.write(it.value()) != it.value().size())
            return false;
        line += ' ' + it.key().toUtf8() + '=' + path.toUtf8();
    }
    return command(line, "owned").has_value();
}

std::optional<QByteArray> ClipboardClient::read(const QString& type)
{
    const QString path = dir_.filePath(QStringLiteral("read"));
    const auto size = command("read " + type.toUtf8() + ' ' + path.toUtf8(), "read ");
    QFile f(path);
    if (!size || size->toLongLong() < 0 || !f.open(QIODevice::ReadOnly))
        return std::nullopt;
    return f.readAll();
}

QStringList ClipboardClient::formats()
{
    const auto list = command("formats", "formats");
    return list ? QString::fromUtf8(*list).split(u' ', Qt::SkipEmptyParts) : QStringList();
}

QList<qint64> ClipboardClient::changes()
{
    QList<qint64> out;
    if (const auto list = command("changes", "changes"))
        for (const QByteArray& t : list->split(' '))
            if (!t.isEmpty())
                out << t.toLongLong();
    return out;
}

QByteArray ClipboardClient::noisePng(int side)
{
    QImage image(side, side, QImage::Format_ARGB32);
    QRandomGenerator rng(side);
    for (int y = 0; y < side; ++y)
        rng.fillRange(reinterpret_cast<quint32*>(image.scanLine(y)), side);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG", 0);
    return png;
}
