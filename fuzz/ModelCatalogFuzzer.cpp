// The speechModelCatalog setting: only complete entries come out of it, whatever it holds.

#include "FuzzSupport.h"
#include "speech/ModelCatalog.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    for (const ModelSource& s : ModelCatalog::parse(text))
        FUZZ_CHECK(!s.locale.isEmpty() && !s.url.isEmpty() && s.sha256.size() == 64);
    return 0;
}
