#pragma once

#include <optional>

/// The levels of the debug log; CLogDebug drops records below its own. cli_debug.conf ("log_level") holds the
/// number.
enum class LogLevel : int { kDebug = 1, kInfo = 2, kWarning = 3, kError = 4 };

/// The base library's own scale (CLog).
enum class CLogLevel : int { kDebug = 0, kInfo = 1, kWarning = 2, kError = 3 };

namespace platform {

/// Nothing for a number outside CLogLevel.
constexpr std::optional<LogLevel> fromCLog(int level) {
  constexpr int kOffset = static_cast<int>(LogLevel::kDebug) - static_cast<int>(CLogLevel::kDebug);
  const bool known =
      level >= static_cast<int>(CLogLevel::kDebug) && level <= static_cast<int>(CLogLevel::kError);
  return known ? std::optional(static_cast<LogLevel>(level + kOffset)) : std::nullopt;
}

}  // namespace platform
