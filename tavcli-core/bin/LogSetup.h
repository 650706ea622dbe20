#pragma once

#include <json/value.h>

#include <string>

#include "bin/ContainerConfig.h"
#include "platform/LogLevel.h"

namespace tavcli {

/// The debug log's settings as etc/debug/cli_debug.conf gives them; the initial values stand for what the
/// file does not say, or not as an integer.
struct DebugLogSettings {
  int sizeBytes = 1048576;
  int backupCount = 5;
  int level = 3;
};
DebugLogSettings readDebugLogSettings(const Json::Value& file);

/// The base library's log level for a value of CKORVIX_CLOG_LEVEL; null when the variable is not set.
CLogLevel clogLevelFor(const char* text);

/// Sets the base library's log up: level from the environment, records to the debug log. Always true.
bool initCLog();

/// Sets the debug log up and prints what was set. False, with a line on standard output, without a readable
/// configuration file.
bool initLog(const ContainerConfig& config);

/// Take the records of the base library and of the bus library into the debug log. Any thread.
void clogCallback(int level, const char* text);
void lunetLogCallback(int level, const char* text);

}  // namespace tavcli
