// What a language-model server answers: the model list, a chat completion and an error body, then
// the answer text as cleanup trims and counts it.

#include "FuzzSupport.h"
#include "core/LocalServer.h"
#include "text/ChatCompletions.h"
#include "text/CleanupEngine.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    const auto body = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    if (const auto ids = ChatCompletions::modelIds(body))
        FUZZ_CHECK(!ids->contains(QString()));
    LocalServer::errorMessage(body);
    if (const auto content = ChatCompletions::answerContent(body)) {
        const QString cleaned = CleanupEngine::cleanAnswer(*content);
        FUZZ_CHECK(cleaned == cleaned.trimmed());
        FUZZ_CHECK(CleanupEngine::characterCount(cleaned) <= cleaned.size());
    }
    return 0;
}
