#pragma once

#include <json/value.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "json/Values.h"
#include "support/InstallTree.h"
#include "support/LunetctlPeer.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace testsupport {

/// A private install tree with the real agent, and folders with files to scan.
class AgentTree {
 public:
  struct Options {
    std::string group;  ///< of the bus; empty: none
    bool start = true;
    std::optional<uid_t> uid{};  ///< the user of the agent and owner of the tree; nothing: root
    bool dataOnDisk = false;     ///< data() lies where the scan cache remembers files
  };
  explicit AgentTree(Options options);
  AgentTree() : AgentTree(Options{}) {}
  ~AgentTree();  ///< ends the agent; a test failure for another exit status than 0

  const std::string& path() const { return tree_.path(); }
  std::string at(const std::string& name) const { return tree_.at(name); }
  /// Writes a file below "data/". Returns the path.
  std::string write(const std::string& name, const std::string& content) const;
  /// A folder whose scan without the cache lasts far longer than a test: many small files with much
  /// in them.
  std::string busyFolder() const;
  std::string data() const { return dataOnDisk_ ? dataOnDisk_->at("data") : at("data"); }
  /// The folder of the system's signatures for the agent. Only a test makes the folder.
  std::string systemSignatures() const { return at("system-signatures"); }

  void start();  ///< returns when the agent serves; throws when the agent does not serve
  void kill(int signal);
  std::optional<int> wait() { return agent_->wait(); }
  Process& agent() { return *agent_; }
  std::string log() const;
  /// The path of a program: the tree's copy if other users run the program, otherwise the build's.
  std::string program(const std::string& name) const;
  /// Starts a console in bin/, with a history folder of its own. name: "tavcli", or "tavcli_quick" with short
  /// waits.
  std::unique_ptr<Process> console(const std::string& name, const std::vector<std::string>& arguments) const;
  /// Starts tavagentd with the arguments and --install-dir.
  std::unique_ptr<Process> run(const std::vector<std::string>& arguments) const;

 private:
  InstallTree tree_;
  std::optional<TempDir> dataOnDisk_;
  std::optional<uid_t> uid_;
  std::unique_ptr<Process> agent_;
};

/// The console of a tree, played by hand at the console's address: calls the agent's methods and keeps its
/// notifications.
class PeerConsole : public LunetctlPeer {
 public:
  /// options: may name another user, group and supplementary groups.
  explicit PeerConsole(const AgentTree& tree, Process::Options options = {})
      : LunetctlPeer(tree.program("lunetctl"), tree.path(), kConsoleAddress, std::move(options)) {}

  /// The result. Throws the error's text when the call fails.
  Json::Value call(const std::string& method, const Json::Value& params) {
    return LunetctlPeer::call(kAgentAddress, method, params);
  }
  /// startScanTask with the console's parameters. `changes` replaces members.
  Json::Value startScan(const std::vector<std::string>& items, const Json::Value& changes = {});
  bool control(json::ControlAction action, const std::string& token);

  /// The states of a task in the order of their notifications; "" for all tasks.
  std::vector<json::TaskState> states(const std::string& token = "") const;
  bool waitForState(json::TaskState state, const std::string& token = "",
                    std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
  /// The params of the last notification with this name; null without a notification.
  Json::Value last(const std::string& method) const;
};

}  // namespace testsupport
