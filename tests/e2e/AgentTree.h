#pragma once

#include <json/value.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/LunetctlPeer.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace testsupport {

/// A private install tree with the real agent in it, and folders for what is scanned beside it.
class AgentTree {
 public:
  struct Options {
    std::string group;  ///< of the bus; empty: none
    bool start = true;
    std::optional<uid_t> uid{};  ///< the agent's user, and the tree's owner; none: root
    bool dataOnDisk = false;     ///< data() is a place of which the scan cache remembers files
  };
  explicit AgentTree(Options options);
  AgentTree() : AgentTree(Options{}) {}
  ~AgentTree();  ///< ends the agent; a test failure when it does not end well

  const std::string& path() const { return dir_.path(); }
  std::string at(const std::string& name) const { return dir_.at(name); }
  /// A file below "data/"; its path.
  std::string write(const std::string& name, const std::string& content) const;
  /// A folder that keeps a scan busy for far longer than a test lasts, when the cache is not used: one large
  /// file under many names.
  std::string busyFolder() const;
  std::string data() const { return (dataOnDisk_ ? *dataOnDisk_ : dir_).at("data"); }
  /// Where the agent looks for the system's signatures; absent unless a test makes it.
  std::string systemSignatures() const { return dir_.at("system-signatures"); }

  void start();  ///< returns when the agent serves; throws when it does not
  void kill(int signal);
  std::optional<int> wait() { return agent_->wait(); }
  Process& agent() { return *agent_; }
  std::string log() const;
  /// The path of a program of the build: the tree's copy, where other users run it.
  std::string program(const std::string& name) const;
  /// A console of this tree, as an operator starts it: in bin/, with a history folder of its own. "tavcli",
  /// or "tavcli_quick", whose waits are cut short.
  std::unique_ptr<Process> console(const std::string& name, const std::vector<std::string>& arguments) const;
  /// Runs tavagentd with arguments and --install-dir, to its end.
  std::unique_ptr<Process> run(const std::vector<std::string>& arguments) const;

 private:
  TempDir dir_;
  std::optional<TempDir> dataOnDisk_;
  std::optional<uid_t> uid_;
  std::unique_ptr<Process> agent_;
};

/// The console of a tree, played by hand at the console's address: calls the agent's methods and keeps its
/// notifications.
class PeerConsole : public LunetctlPeer {
 public:
  /// With another user, group and supplementary groups when given.
  explicit PeerConsole(const AgentTree& tree, Process::Options options = {})
      : LunetctlPeer(tree.program("lunetctl"), tree.path(), kConsoleAddress, std::move(options)) {}

  /// The result. Throws the error's text when the call fails.
  Json::Value call(const std::string& method, const Json::Value& params) {
    return LunetctlPeer::call(kAgentAddress, method, params);
  }
  /// startScanTask with the console's parameters, changed by `changes`.
  Json::Value startScan(const std::vector<std::string>& items, const Json::Value& changes = {});
  bool control(int action, const std::string& token);

  /// The states of a task in the order of their notifications; "" for all tasks.
  std::vector<int> states(const std::string& token = "") const;
  bool waitForState(int state, const std::string& token = "",
                    std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
  /// params of the last notification of that name; null when there is none.
  Json::Value last(const std::string& method) const;
};

}  // namespace testsupport
