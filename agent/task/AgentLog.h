#pragma once

#include "platform/CLogDebug.h"

/// A record of the agent's log, printf-style. Levels 1 (most verbose) to 4 (errors).
#define AGENT_LOG(level, ...)                                                      \
  do {                                                                             \
    if (CLogDebug::CheckLogLevel(level)) {                                         \
      CLogDebug::LogPrintV(level, __FILE_NAME__, __func__, __LINE__, __VA_ARGS__); \
    }                                                                              \
  } while (false)
