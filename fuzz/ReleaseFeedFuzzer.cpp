// What a release feed answers to "Check for Updates…" (JSON, an RSS appcast or plain text), and the
// version ordering that decides whether it is newer.

#include "FuzzSupport.h"
#include "ui/tray/ReleaseFeed.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>

namespace {
int sign(int n) { return (n > 0) - (n < 0); }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    FuzzedDataProvider input(data, size);
    const QString a = QString::fromStdString(input.ConsumeRandomLengthString(40));
    const QString b = QString::fromStdString(input.ConsumeRandomLengthString(40));
    FUZZ_CHECK(ReleaseFeed::compareVersions(a, a) == 0);
    FUZZ_CHECK(sign(ReleaseFeed::compareVersions(a, b)) == -sign(ReleaseFeed::compareVersions(b, a)));
    QString error;
    if (const auto feed = ReleaseFeed::parse(QByteArray::fromStdString(input.ConsumeRemainingBytesAsString()), &error))
        FUZZ_CHECK(ReleaseFeed::isVersion(feed->version));
    else
        FUZZ_CHECK(!error.isEmpty());
    return 0;
}
