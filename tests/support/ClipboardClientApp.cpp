// A plain X client that uses the CLIPBOARD as applications do, through Qt. Commands arrive on standard
// input, one per line, and each is answered with one line:
//   own [TYPE=PATH ...]  copy: own the clipboard with these formats, each holding the bytes of its file
//                        (no formats: clear the clipboard); answers "owned"
//   read TYPE PATH       paste: write the clipboard's TYPE to PATH; answers "read N" (N bytes, -1 when
//                        the clipboard does not offer TYPE)
//   formats              answers "formats TYPE TYPE…" as offered now
//   changes              answers "changes T T…": the monotonic clock (microseconds) of each change
//                        of the clipboard's owner seen so far
//   quit

#include "support/ClientCommands.h"

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QMimeData>

using ClientCommands::answer;

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    QClipboard* clipboard = QGuiApplication::clipboard();
    QList<qint64> changes;
    QObject::connect(clipboard, &QClipboard::changed, &app, [&changes](QClipboard::Mode mode) {
        if (mode == QClipboard::Clipboard)
            changes << ClientCommands::monotonicMicroseconds();
    });

    ClientCommands::onEachLine(app, [&](const QByteArray& line) {
        const QList<QByteArray> words = line.split(' ');
        const QByteArray& command = words.first();
        if (command == "own") {
            if (words.size() == 1) {
                clipboard->clear();
            } else {
                auto* data = new QMimeData;
                for (qsizetype i = 1; i < words.size(); ++i) {
                    const qsizetype eq = words[i].indexOf('=');
                    QFile f(QString::fromUtf8(words[i].mid(eq + 1)));
                    if (f.open(QIODevice::ReadOnly))
                        data->setData(QString::fromUtf8(words[i].left(eq)), f.readAll());
                }
                clipboard->setMimeData(data);
            }
            answer("owned");
        } else if (command == "read" && words.size() == 3) {
            const QMimeData* data = clipboard->mimeData();
            const QString type = QString::fromUtf8(words[1]);
            qint64 size = -1;
            if (data && data->hasFormat(type)) {
                QFile f(QString::fromUtf8(words[2]));
                if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
                    size = f.write(data->data(type));
            }
            answer("read " + QByteArray::number(size));
        } else if (command == "formats") {
            const QMimeData* data = clipboard->mimeData();
            answer(("formats " + (data ? data->formats() : QStringList()).join(u' ')).toUtf8().trimmed());
        } else if (command == "changes") {
            QByteArray out = "changes";
            for (qint64 t : changes)
                out += ' ' + QByteArray::number(t);
            answer(out);
        } else if (command == "quit") {
            app.quit();
        }
    });
    return app.exec();
}
