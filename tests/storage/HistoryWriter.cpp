// The history writer that the storage test kills in the middle of a write: the program's own
// history store, which appends as fast as it can and says "writing" once it has read the file
// (with --open: says how many records it read, and ends). Each record names its number and says how long it is, so a reader can tell a whole file
// from a cut one: see HistoryRecord.h.
#include "HistoryRecord.h"
#include "storage/TranscriptStore.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    TranscriptStore& store = TranscriptStore::shared();
    const QList<TranscriptEntry> read = store.entries();
    if (argc == 2 && qstrcmp(argv[1], "--open") == 0) {
        std::printf("%lld\n", static_cast<long long>(read.size()));
        return 0;
    }
    int next = read.isEmpty() ? 0 : HistoryRecord::number(read.last().text) + 1;
    std::fputs("writing\n", stdout);
    std::fflush(stdout);
    for (;; ++next) {
        store.append(HistoryRecord::make(next));
        store.waitForWrites();
    }
}
