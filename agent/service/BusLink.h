#pragma once

#include <string>

#include "lunet/BusClient.h"
#include "platform/InstallTree.h"

namespace agent {

/// The bus settings that all programs of a tree share.
struct BusSettings {
  std::string clientConfig;  ///< for IClient::Init
  std::string socketDir;     ///< absolute
  std::string group;         ///< empty: none
};

/// Of cli_lunet.conf, or the defaults without such a file. logName: names the bus library's own log.
platform::Expected<BusSettings> readBusSettings(const platform::InstallTree& tree,
                                                const std::string& logName);

/// The bus library of a tree, loaded and set up, with one endpoint of this process on it.
class BusLink {
 public:
  /// Loads the library and makes the endpoint. Receivers are registered on it before `open`.
  platform::Expected<void> prepare(const platform::InstallTree& tree, const BusSettings& settings);
  /// Opens the prepared endpoint; from then on other programs reach it.
  platform::Expected<void> open(const std::string& guid);
  lunet::IEndpoint& endpoint() { return *bus_.endpoint(); }  ///< of a prepared link

 private:
  lunet::BusClient bus_;
};

}  // namespace agent
