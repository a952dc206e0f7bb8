#include "core/CleanupMode.h"

namespace CleanupModes {

namespace {
struct Info {
    CleanupMode mode;
    const char* raw;
    const char* label;
    const char* description;
};

constexpr Info table[] = {
    {CleanupMode::raw, "raw", "Raw", "Paste exactly what you said"},
    {CleanupMode::tidy, "tidy", "Tidy", "Remove repeats & filler, keep every point"},
    {CleanupMode::bullets, "bullets", "Bullets", "Reformat into bullet points"},
    {CleanupMode::summary, "summary", "Summary", "Condense to the key points"},
};

const Info& info(CleanupMode mode) { return table[static_cast<int>(mode)]; }
}  // namespace

QString rawValue(CleanupMode mode) { return QString::fromLatin1(info(mode).raw); }

std::optional<CleanupMode> fromRawValue(const QString& raw)
{
    for (const Info& i : table) {
        if (raw == QLatin1String(i.raw))
            return i.mode;
    }
    return std::nullopt;
}

QString label(CleanupMode mode) { return QString::fromUtf8(info(mode).label); }

QString description(CleanupMode mode) { return QString::fromUtf8(info(mode).description); }

}  // namespace CleanupModes
