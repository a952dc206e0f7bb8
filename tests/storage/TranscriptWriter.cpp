// Appends large transcripts to a history file as fast as it can, so a test can kill it while a
// write is under way. Usage: transcript_writer FILE COUNT SIZE
#include "storage/TranscriptStore.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4)
        return 2;
    TranscriptStore store(args.at(1));
    const int count = args.at(2).toInt();
    const int size = args.at(3).toInt();
    for (int i = 0; i < count; ++i) {
        store.append(QStringLiteral("entry %1 ").arg(i) + QString(size, QLatin1Char('a' + i % 26)));
        store.waitForWrites();
    }
    return 0;
}
