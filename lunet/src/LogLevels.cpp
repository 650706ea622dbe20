#include "lunet/LogLevels.h"

#include <iterator>

namespace lunet {

namespace {

/// Row: the bus library's level.
constexpr LogLevel kFromBus[] = {LogLevel::kError, LogLevel::kWarning, LogLevel::kInfo, LogLevel::kDebug};

/// Row: the file's level.
constexpr BusLogLevel kFromFile[] = {BusLogLevel::kOff,     BusLogLevel::kEverything, BusLogLevel::kInfo,
                                     BusLogLevel::kWarning, BusLogLevel::kError,      BusLogLevel::kError,
                                     BusLogLevel::kError};

}  // namespace

LogLevel fromBus(int busLevel) {
  return busLevel >= 0 && busLevel < std::ssize(kFromBus) ? kFromBus[busLevel] : LogLevel::kDebug;
}

BusLogLevel busLevelOfFile(int fileLevel) {
  return fileLevel >= 0 && fileLevel < std::ssize(kFromFile) ? kFromFile[fileLevel] : BusLogLevel::kOff;
}

}  // namespace lunet
