// What a speech server answers for a segment ({"text": …} from whisper.cpp's or an OpenAI-compatible
// server), and its error bodies.

#include "FuzzSupport.h"
#include "core/LocalServer.h"
#include "speech/TranscriptionApi.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    const auto body = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    if (const auto text = TranscriptionApi::answerText(body))
        FUZZ_CHECK(*text == text->trimmed());
    LocalServer::errorMessage(body);
    return 0;
}
