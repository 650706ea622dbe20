#pragma once

#include "platform/LogLevel.h"

namespace lunet {

/// The bus library's scale, of "log_level" for IClient::Init and of LogCallback.
enum class BusLogLevel : int { kOff = -1, kError = 0, kWarning = 1, kInfo = 2, kEverything = 3 };

/// The debug log's level for a record of the bus library. An unknown number counts as kDebug.
LogLevel fromBus(int busLevel);

/// The bus library's level for "log_level" of cli_lunet.conf. The file counts from the most verbose level,
/// the library from errors. An unknown number gives kOff.
BusLogLevel busLevelOfFile(int fileLevel);

/// Stands for a "log_level" that is missing or no integer.
inline constexpr int kDefaultFileLevel = 3;

}  // namespace lunet
