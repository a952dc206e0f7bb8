// Snippet rules as stored under "snippets": a list that decodes is stored back unchanged, and any
// spoken text is matched against it without harm.

#include "FuzzSupport.h"
#include "text/SnippetStore.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    FuzzedDataProvider input(data, size);
    const QString spoken = QString::fromStdString(input.ConsumeRandomLengthString(200));
    const std::string stored = input.ConsumeRemainingBytesAsString();
    const std::optional<QList<Snippet>> list = SnippetStore::decode(QByteArray::fromStdString(stored));
    if (!list)
        return 0;
    FUZZ_CHECK(SnippetStore::decode(SnippetStore::encode(*list)) == list);
    if (const std::optional<QString> replacement = SnippetStore::expand(spoken, *list))
        FUZZ_CHECK(std::any_of(list->begin(), list->end(), [&](const Snippet& s) { return s.replacement == *replacement; }));
    return 0;
}
