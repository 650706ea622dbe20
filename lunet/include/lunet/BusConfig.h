#pragma once

#include <json/value.h>

#include <string>

#include "platform/Expected.h"

namespace lunet {

/// Why the bus configuration of a tree is not used.
struct BusConfigFailure {
  enum class Kind { kMissing, kUnsafe, kUnreadable, kNoObject };
  Kind kind;
  std::string reason;  ///< one line
};

/// The content of cli_lunet.conf. kUnsafe: a user other than root and this one can change the file or make
/// its path lead elsewhere.
tl::expected<Json::Value, BusConfigFailure> readBusConfig(const std::string& path);

/// Where the bus library logs for a program: FOLDER/STEM.ipc.log, and FOLDER/backup for full files.
struct BusLogPlace {
  std::string folder;
  std::string stem;
};

/// The configuration for IClient::Init, of a program in the tree at `runtimePath`. config: the content of
/// cli_lunet.conf. Its "log_level" is converted to the library's scale.
Json::Value completeBusConfig(Json::Value config, const std::string& runtimePath, const BusLogPlace& log);

/// One line of JSON, as IClient::Init takes it.
std::string compactText(const Json::Value& config);

/// The folder of the sockets: "socket_dir" of the configuration, absolute or below runtimePath; by default
/// "run/lunet". The console's single-instance mark lies there too.
std::string socketDirectory(const std::string& runtimePath, const Json::Value& config);

}  // namespace lunet
