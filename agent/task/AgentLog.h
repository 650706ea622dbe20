#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/CLogDebug.h"

namespace agent {

/// LineLimit::admit for a line that this user causes in the agent's log. No limit for root and the agent's
/// own user. Any thread.
std::optional<std::string> admitLine(uid_t user);

}  // namespace agent

/// Writes a record of the agent's log, printf-style. level: a LogLevel.
#define AGENT_LOG(level, ...)                                                      \
  do {                                                                             \
    if (CLogDebug::CheckLogLevel(level)) {                                         \
      CLogDebug::LogPrintV(level, __FILE_NAME__, __func__, __LINE__, __VA_ARGS__); \
    }                                                                              \
  } while (false)

/// The same for a record that a user other than the agent's own may cause without end. format: a literal.
#define AGENT_LOG_OF(user, level, format, ...)                                                   \
  do {                                                                                           \
    if (CLogDebug::CheckLogLevel(level)) {                                                       \
      if (const auto remarkOnLines = agent::admitLine(user)) {                                   \
        CLogDebug::LogPrintV(level, __FILE_NAME__, __func__, __LINE__, format "%s", __VA_ARGS__, \
                             remarkOnLines->c_str());                                            \
      }                                                                                          \
    }                                                                                            \
  } while (false)
