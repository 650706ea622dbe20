#include "e2e/AgentTree.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "json/CppJson.h"
#include "json/Values.h"
#include "lunet/Lunet.h"
#include "support/ArchiveMaker.h"
#include "support/Json.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace testsupport {

namespace {

constexpr std::chrono::seconds kLimit{20};

}  // namespace

AgentTree::AgentTree(Options options) : uid_(options.uid) {
  namespace fs = std::filesystem;
  chmod(path().c_str(), 0755);
  fs::create_directories(at("etc/agent"));
  fs::create_directories(at("data"));
  if (options.dataOnDisk && diskFolder() != "/tmp") {
    dataOnDisk_.emplace(diskFolder());
    fs::create_directories(data());
  }
  // Copies, because other users may not be able to enter the folder of the sources.
  fs::copy(std::string(TAV_SOURCE_DIR) + "/packaging/etc/agent/signatures", at("etc/agent/signatures"));
  if (options.uid || !options.group.empty()) {
    for (const char* program : {"tavagentd", "tavscand", "lunetctl"}) {
      fs::copy_file(std::string(TAV_BIN_DIR) + "/" + program, at("bin/") + program);
    }
  }
  Json::Value bus(Json::objectValue);
  bus["log_level"] = 3;
  bus["connect_timeout_ms"] = 10000;
  if (!options.group.empty()) {
    bus["group"] = options.group;
  }
  tree_.setBusConfig(jsonText(bus));
  tree_.setDebugConfig(R"({"log_size":1048576,"log_backup_max_num":5,"log_level":3})");
  if (uid_) {
    for (const auto& entry : fs::recursive_directory_iterator(path())) {
      if (lchown(entry.path().c_str(), *uid_, *uid_) != 0) {
        throw std::runtime_error("cannot give " + entry.path().string() + " away");
      }
    }
    if (chown(path().c_str(), *uid_, *uid_) != 0) {
      throw std::runtime_error("cannot give the tree away");
    }
  }
  if (options.start) {
    start();
  }
}

AgentTree::~AgentTree() {
  if (agent_ && agent_->running()) {
    agent_->kill(SIGTERM);
    // A sanitizer that finds an error in the agent changes the exit status.
    EXPECT_EQ(0, agent_->wait().value_or(-1)) << agent_->err();
  }
}

std::string AgentTree::write(const std::string& name, const std::string& content) const {
  return dataOnDisk_ ? dataOnDisk_->write("data/" + name, content) : tree_.write("data/" + name, content);
}

std::string AgentTree::busyFolder() const {
  const std::string folder = data() + "/busy";
  if (std::filesystem::exists(folder)) {
    return folder;
  }
  constexpr std::size_t kPiece = 512;
  const std::string pieces = noise(kPiece << 10);
  std::string content;
  for (std::size_t at = 0; at < pieces.size(); at += kPiece) {
    content += pieces.substr(at, kPiece) + std::string(31 * kPiece, 'x');
  }
  const std::string packed = makeGzip(content);
  for (int i = 0; i < 200; ++i) {
    write("busy/" + std::to_string(i), packed);
  }
  return folder;
}

void AgentTree::start() {
  agent_ = run({});
  if (!waitFor([this] { return agent_->err().find("serving") != std::string::npos || !agent_->running(); },
               kLimit) ||
      !agent_->running()) {
    throw std::runtime_error("the agent does not serve: " + agent_->err());
  }
}

void AgentTree::kill(int signal) {
  agent_->kill(signal);
}

std::string AgentTree::log() const {
  return readFile(at("log/tavagentd.log"));
}

std::unique_ptr<Process> AgentTree::run(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{program("tavagentd"), "--install-dir", path(), "--system-signatures",
                                   systemSignatures()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  Process::Options options;
  options.uid = uid_;
  options.gid = uid_;
  return std::make_unique<Process>(std::move(command), std::move(options));
}

std::string AgentTree::program(const std::string& name) const {
  const std::string own = at("bin/" + name);
  return std::filesystem::exists(own) ? own : std::string(TAV_BIN_DIR) + "/" + name;
}

std::unique_ptr<Process> AgentTree::console(const std::string& name,
                                            const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{program(name)};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(std::move(command), tree_.options());
}

Json::Value PeerConsole::startScan(const std::vector<std::string>& items, const Json::Value& changes) {
  Json::Value params = jsonOf(
      R"({"follow_link":false,"max_scan_sec":0,"uid":0,"custom_stop":true,"items":[],"force_scan":false,
          "handle_action":-1,"fix_method":2,"handle_filter_types":[],"parallelism":0,"proc_fix_method":0,
          "expire_time":0,"scan_type":2})");
  for (const std::string& item : items) {
    params["items"].append(json::encodePath(item));
  }
  for (const std::string& key : changes.isObject() ? changes.getMemberNames() : Json::Value::Members()) {
    params[key] = changes[key];
  }
  Json::Value request(Json::objectValue);
  request["ctx"] = Json::Value();
  request["desc"] = "";
  request["params"] = params;
  request["source"] = json::toNumber(json::RequestSource::kConsole);
  request["token_id"] = "";
  return call("startScanTask", request);
}

bool PeerConsole::control(json::ControlAction action, const std::string& token) {
  Json::Value request(Json::objectValue);
  request["action"] = json::toNumber(action);
  request["detail"] = "by the test";
  request["mark"] = 0;
  request["payload"] = Json::Value();
  request["source"] = json::toNumber(json::RequestSource::kConsole);
  request["token_id"] = token;
  return call("ctlBus", request).asBool();
}

std::vector<json::TaskState> PeerConsole::states(const std::string& token) const {
  std::vector<json::TaskState> found;
  for (const Message& notice : messages("reportBusStatus")) {
    if (token.empty() || notice.params["token_id"].asString() == token) {
      found.push_back(json::TaskState{notice.params["state"].asInt()});
    }
  }
  return found;
}

bool PeerConsole::waitForState(json::TaskState state, const std::string& token,
                               std::chrono::milliseconds limit) const {
  return waitFor(
      [&] {
        const std::vector<json::TaskState> seen = states(token);
        return std::find(seen.begin(), seen.end(), state) != seen.end();
      },
      limit);
}

Json::Value PeerConsole::last(const std::string& method) const {
  const std::vector<Message> found = messages(method);
  return found.empty() ? Json::Value() : found.back().params;
}

}  // namespace testsupport
