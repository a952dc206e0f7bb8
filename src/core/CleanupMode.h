#pragma once

#include <QString>

#include <array>
#include <optional>

// How the final transcript is rewritten before it is inserted.
enum class CleanupMode { raw, tidy, bullets, summary };

namespace CleanupModes {

inline constexpr std::array<CleanupMode, 4> allCases = {CleanupMode::raw, CleanupMode::tidy,
                                                        CleanupMode::bullets, CleanupMode::summary};
inline constexpr CleanupMode defaultMode = CleanupMode::tidy;

QString rawValue(CleanupMode mode);
std::optional<CleanupMode> fromRawValue(const QString& raw);
QString label(CleanupMode mode);
QString description(CleanupMode mode);

}  // namespace CleanupModes
