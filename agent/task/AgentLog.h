#pragma once

#include "platform/CLogDebug.h"

/// Writes a record of the agent's log, printf-style. level: a LogLevel.
#define AGENT_LOG(level, ...)                                                      \
  do {                                                                             \
    if (CLogDebug::CheckLogLevel(level)) {                                         \
      CLogDebug::LogPrintV(level, __FILE_NAME__, __func__, __LINE__, __VA_ARGS__); \
    }                                                                              \
  } while (false)
