#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace testsupport {

/// The path of a shared object that is no bus library: JsonCpp's. Empty when this process has not loaded it.
inline std::string someSharedObject() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("libjsoncpp") != std::string::npos) {
      return line.substr(line.find('/'));
    }
  }
  return "";
}

/// A private install tree: bin/, the bus library in lib/modules/, etc/ and log/. The history lies in
/// home/. Sockets and mark lie in the tree, so tests do not disturb each other. Needs the LunetClientMgr
/// target built.
class InstallTree {
 public:
  InstallTree() {
    namespace fs = std::filesystem;
    for (const char* folder : {"bin", "lib/modules", "log", "home"}) {
      fs::create_directories(at(folder));
    }
    fs::copy_file(std::string(TAV_LIB_DIR) + "/libLunetClientMgr.so", busLibrary());
    fs::permissions(busLibrary(), fs::perms(0644));
    setBusConfig(R"({"log_level":3,"connect_timeout_ms":300})");
    setDebugConfig(R"({"log_size":1048576,"log_backup_max_num":5,"log_level":1})");
  }

  const std::string& path() const { return folder_.path(); }
  std::string at(std::string_view name) const { return folder_.at(name); }
  std::string write(std::string_view name, std::string_view content) const {
    return folder_.write(name, content);
  }

  std::string busLibrary() const { return at("lib/modules/libLunetClientMgr.so"); }
  void setBusConfig(std::string_view json) const { write("etc/communication/cli_lunet.conf", json); }
  void setDebugConfig(std::string_view json) const { write("etc/debug/cli_debug.conf", json); }
  std::string debugLog() const { return readFile(at("log/tavcli.log")); }

  /// The options of a program of this tree: the folder bin/, a private state folder and a plain terminal.
  Process::Options options() const {
    Process::Options options;
    options.workingDir = at("bin");
    options.environment = {{"XDG_STATE_HOME", at("home")}, {"TERM", "dumb"}, {"CKORVIX_CLOG_LEVEL", ""}};
    return options;
  }
  /// Starts a program of the build with these options. name: a name in the build's bin folder.
  std::unique_ptr<Process> start(const std::string& name,
                                 const std::vector<std::string>& arguments = {}) const {
    std::vector<std::string> command{std::string(TAV_BIN_DIR) + "/" + name};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command, options());
  }
  std::unique_ptr<Process> console(const std::vector<std::string>& arguments = {}) const {
    return start("tavcli", arguments);
  }

 private:
  TempDir folder_;
};

}  // namespace testsupport
