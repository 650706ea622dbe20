#pragma once

#include "platform/LogLevel.h"

namespace lunet {

/// The bus library's scale: what IClient::Init takes as "log_level" and LogCallback gets.
enum class BusLogLevel : int { kOff = -1, kError = 0, kWarning = 1, kInfo = 2, kEverything = 3 };

/// The debug log's level for a record of the bus library. An unknown number counts as kDebug.
LogLevel fromBus(int busLevel);

/// The bus library's level for "log_level" of cli_lunet.conf. The file counts from the most verbose level
/// upwards, the library the other way round; an unknown number gives kOff.
BusLogLevel busLevelOfFile(int fileLevel);

/// "log_level" of a file that has none.
inline constexpr int kDefaultFileLevel = 3;

}  // namespace lunet
