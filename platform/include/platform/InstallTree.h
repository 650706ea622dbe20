#pragma once

#include <string>
#include <utility>

namespace platform {

/// The paths of an install tree, as every program of the tree uses them.
struct InstallTree {
  explicit InstallTree(std::string folder) : root(std::move(folder)) {}

  std::string root;  ///< as the caller gave it
  /// name: relative to the root.
  std::string at(const char* name) const { return root + (root.ends_with('/') ? "" : "/") + name; }
  std::string busLibrary() const { return at("lib/modules/libLunetClientMgr.so"); }
  std::string busConfig() const { return at("etc/communication/cli_lunet.conf"); }
  std::string debugConfig() const { return at("etc/debug/cli_debug.conf"); }
  std::string signatures() const { return at("etc/agent/signatures"); }
  std::string state() const { return at("state"); }
  std::string log() const { return at("log"); }
};

}  // namespace platform
