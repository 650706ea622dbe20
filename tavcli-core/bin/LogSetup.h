#pragma once

#include "bin/ContainerConfig.h"

namespace tavcli {

/// Sets up the base library's log: CKORVIX_CLOG_LEVEL is the level, and the records go to the debug log.
/// Always true.
bool initCLog();

/// Sets up the debug log and prints the settings. Without a readable configuration file, prints a line and
/// returns false.
bool initLog(const ContainerConfig& config);

/// Write the records of the base library and of the bus library to the debug log. Any thread.
void clogCallback(int level, const char* text);
void lunetLogCallback(int level, const char* text);

}  // namespace tavcli
