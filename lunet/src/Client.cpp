#include "Client.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <thread>
#include <utility>

#include "json/CppJson.h"
#include "lunet/BusConfig.h"
#include "platform/Text.h"
#include "platform/Users.h"

namespace lunet {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Between two attempts to reach the agent.
constexpr milliseconds kConnectPause{20};

/// "group" as it stands in the configuration; empty without one. False when it is not a text.
bool readGroup(const Json::Value& config, std::string& name) {
  const Json::Value& member = config["group"];
  if (!member.isNull() && !member.isString()) {
    return false;
  }
  name = member.isString() ? member.asString() : "";
  return true;
}

}  // namespace

IEndpoint* Client::CreateEndpoint() {
  try {
    const std::lock_guard lock(mutex_);
    if (!ready_) {
      return nullptr;
    }
    endpoints_.push_back(std::make_unique<Endpoint>(bus_));
    return endpoints_.back().get();
  } catch (const std::exception&) {
    return nullptr;
  }
}

void Client::DestroyEndpoint(IEndpoint* endpoint) {
  std::unique_ptr<Endpoint> owned;
  {
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(endpoints_.begin(), endpoints_.end(),
                                    [endpoint](const auto& each) { return each.get() == endpoint; });
    if (found == endpoints_.end()) {
      return;
    }
    owned = std::move(*found);
    endpoints_.erase(found);
  }
}

std::uint32_t Client::Init(const char* config, const char* uuid) {
  try {
    const std::lock_guard lock(mutex_);
    if (ready_ || config == nullptr) {
      return kErrArgument;
    }
    const Error error = configure(config, uuid);
    ready_ = error == kOk;
    if (!ready_) {
      bus_.log.close();
    }
    return error;
  } catch (const std::exception& error) {
    bus_.log.write(BusLogLevel::kError, std::string("the bus cannot be set up: ") + error.what());
    return kErrSystem;
  }
}

Error Client::configure(const char* text, const char* uuid) {
  Json::Value config;
  if (!CppJson::LoadJsonString(text, config) || !config.isObject()) {
    return kErrArgument;
  }
  Log::Settings log;
  log.path = CppJson::readString(config, "log_path", "");
  log.backupPath = CppJson::readString(config, "log_backup_path", "");
  constexpr int kOff = static_cast<int>(BusLogLevel::kOff);
  constexpr int kEverything = static_cast<int>(BusLogLevel::kEverything);
  constexpr int kError = static_cast<int>(BusLogLevel::kError);
  log.level =
      static_cast<BusLogLevel>(std::clamp(CppJson::readInt(config, "log_level", kError), kOff, kEverything));
  log.name = uuid != nullptr ? uuid : "";
  bus_.log.open(std::move(log));

  const std::string runtimePath = CppJson::readString(config, "runtime_path", "");
  const std::string folder = socketDirectory(runtimePath, config);
  if (folder.empty() || folder.front() != '/') {
    bus_.log.write(BusLogLevel::kError,
                   "the bus configuration names no absolute \"socket_dir\" and no absolute \"runtime_path\"");
    return kErrArgument;
  }
  std::string groupName;
  if (!readGroup(config, groupName)) {
    bus_.log.write(BusLogLevel::kError, "\"group\" in the bus configuration is not a text");
    return kErrArgument;
  }
  bus_.folder = {folder, std::nullopt};
  if (!groupName.empty()) {
    bus_.folder.group = platform::groupId(groupName);
    if (!bus_.folder.group) {
      bus_.log.write(BusLogLevel::kError,
                     "the group \"" + groupName + "\" of the bus configuration does not exist");
      return kErrArgument;
    }
  }
  bus_.rule = {geteuid(), bus_.folder.group};
  connectTimeoutMs_ = CppJson::readInt(config, "connect_timeout_ms", -1);
  return kOk;
}

std::uint32_t Client::Connect(std::uint32_t timeoutSec) {
  try {
    milliseconds limit = std::chrono::seconds(timeoutSec);
    {
      const std::lock_guard lock(mutex_);
      if (!ready_) {
        return kErrNotOpen;
      }
      if (connectTimeoutMs_ >= 0) {
        limit = std::min(limit, milliseconds(connectTimeoutMs_));
      }
    }
    const bool look = limit <= milliseconds(0);
    const Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
      std::string why;
      const Error error = connectOnce(deadline, !look, &why);
      const bool absent = error == kErrNoTarget || error == kErrTimeout || error == kErrQueueFull;
      if (error == kOk || !absent || Clock::now() + kConnectPause >= deadline) {
        const Error found = error == kErrTimeout ? kErrNoTarget : error;
        noteReached(found, look, why);
        return found;
      }
      std::this_thread::sleep_for(kConnectPause);
    }
  } catch (const std::exception& error) {
    bus_.log.write(BusLogLevel::kError, std::string("the system refused: ") + error.what());
    return kErrSystem;
  }
}

/// Of looks, which come often, only those that find a change are logged.
void Client::noteReached(Error found, bool look, const std::string& why) {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(lastFound_, found) == found && look) {
      return;
    }
  }
  if (found == kOk) {
    bus_.log.write(BusLogLevel::kInfo, "the agent accepts");
  } else {
    bus_.log.write(BusLogLevel::kError, "the agent is not reached: " + why);
  }
}

Error Client::connectOnce(Clock::time_point deadline, bool greet, std::string* why) const {
  const FolderCheck folder = checkFolder(bus_.folder);
  if (folder.error != kOk) {
    *why = folder.why;
    return folder.error;
  }
  DialRequest request;
  request.folder = &bus_.folder;
  request.folderOwner = folder.owner;
  request.rule = bus_.rule;
  request.target = parseGuid(kAgentGuid);
  request.deadline = deadline;
  request.greet = greet;
  const Dialled dialled = dial(request);
  *why = bus_.folder.socketPath(request.target) + ": " + dialled.why;
  return dialled.error;
}

void Client::Disconnect() {
  const std::lock_guard lock(mutex_);
  for (const std::unique_ptr<Endpoint>& endpoint : endpoints_) {
    endpoint->Close();
  }
}

void Client::Uninit() {
  std::vector<std::unique_ptr<Endpoint>> endpoints;
  {
    const std::lock_guard lock(mutex_);
    ready_ = false;
    lastFound_.reset();
    endpoints.swap(endpoints_);
  }
  endpoints.clear();
  bus_.log.close();
}

}  // namespace lunet
