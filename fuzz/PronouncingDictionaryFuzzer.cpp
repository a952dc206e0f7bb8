// A model's pronouncing dictionary, cut down to the words its language model knows: only whole
// entries of the original come out, and cutting again changes nothing.

#include "FuzzSupport.h"
#include "speech/PronouncingDictionary.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    FuzzedDataProvider input(data, size);
    QSet<QByteArray> vocabulary;
    for (int i = input.ConsumeIntegralInRange(0, 8); i > 0; --i)
        vocabulary.insert(QByteArray::fromStdString(input.ConsumeRandomLengthString(16)));
    const QByteArray dictionary = QByteArray::fromStdString(input.ConsumeRemainingBytesAsString());
    const QByteArray kept = PronouncingDictionary::keepOnly(dictionary, vocabulary);
    FUZZ_CHECK(PronouncingDictionary::keepOnly(kept, vocabulary) == kept);
    for (const QByteArray& line : kept.split('\n')) {
        if (!line.isEmpty())
            FUZZ_CHECK(dictionary.contains(line));
    }
    return 0;
}
