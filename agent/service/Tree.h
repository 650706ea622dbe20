#pragma once

#include <json/value.h>

#include <string>

namespace agent {

/// Where things lie in an install tree, as the agent uses it.
struct Tree {
  explicit Tree(std::string installDir) : root(std::move(installDir)) {}
  std::string root;
  std::string busLibrary() const { return root + "/lib/modules/libLunetClientMgr.so"; }
  std::string busConfig() const { return root + "/etc/communication/cli_lunet.conf"; }
  std::string signatures() const { return root + "/etc/agent/signatures"; }
  std::string state() const { return root + "/state"; }
  std::string log() const { return root + "/log"; }
};

/// The bus settings that all programs of a tree share.
struct BusSettings {
  std::string fileText;      ///< of cli_lunet.conf; {} when there is none
  std::string clientConfig;  ///< for IClient::Init
  std::string socketDir;
  std::string group;  ///< empty: none
};
/// False, and one line in *why, for a file that is there and cannot be read as JSON. logName: of the bus
/// library's own log below the log folder.
bool readBusSettings(const Tree& tree, const std::string& logName, BusSettings* settings, std::string* why);

}  // namespace agent
