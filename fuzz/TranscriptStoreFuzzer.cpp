// The history file as Tolvane finds it on disk: whatever is read is written back unchanged and
// reads the same again, so one odd line can never cost the rest of the history.

#include "FuzzSupport.h"
#include "storage/TranscriptStore.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    const auto bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const TranscriptStore::Contents read = TranscriptStore::parse(bytes);
    if (read.notUtf8) {
        FUZZ_CHECK(read.entries.isEmpty());
        return 0;
    }
    const TranscriptStore::Contents again = TranscriptStore::parse(TranscriptStore::encode(read.entries));
    FUZZ_CHECK(!again.notUtf8 && again.unreadableLines == 0);
    FUZZ_CHECK(again.entries.size() == read.entries.size());
    for (qsizetype i = 0; i < read.entries.size(); ++i) {
        FUZZ_CHECK(again.entries[i].timestamp == read.entries[i].timestamp);
        FUZZ_CHECK(again.entries[i].text == read.entries[i].text);
    }
    return 0;
}
