#include "Client.h"

#include <unistd.h>

#include <algorithm>
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

}  // namespace

IEndpoint* Client::CreateEndpoint() {
  try {
    const std::lock_guard lock(mutex_);
    if (!ready_) {
      return nullptr;
    }
    endpoints_.push_back(std::make_shared<Endpoint>(bus_));
    return endpoints_.back().get();
  } catch (const std::exception&) {
    return nullptr;
  }
}

void Client::DestroyEndpoint(IEndpoint* endpoint) {
  std::shared_ptr<Endpoint> owned;
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
  owned->Close();  // Disconnect may hold the endpoint too
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

  const auto refuse = [this](const std::string& reason) {
    bus_.log.write(BusLogLevel::kError, reason);
    return kErrArgument;
  };
  const std::string folder = socketDirectory(CppJson::readString(config, "runtime_path", ""), config);
  if (!folder.starts_with('/')) {
    return refuse("the bus configuration names no absolute \"socket_dir\" and no absolute \"runtime_path\"");
  }
  const Json::Value group = config["group"];
  if (!group.isNull() && !group.isString()) {
    return refuse("\"group\" in the bus configuration is not a text");
  }
  bus_.folder = {folder, std::nullopt};
  if (const std::string name = group.isString() ? group.asString() : ""; !name.empty()) {
    bus_.folder.group = platform::groupId(name);
    if (!bus_.folder.group) {
      return refuse("the group \"" + name + "\" of the bus configuration does not exist");
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
      Result<void> reached = connectOnce(deadline, !look);
      const Error error = reached ? kOk : reached.error().error;
      const bool absent = error == kErrNoTarget || error == kErrTimeout || error == kErrQueueFull;
      if (!absent || Clock::now() + kConnectPause >= deadline) {
        if (error == kErrTimeout) {
          reached.error().error = kErrNoTarget;
        }
        logChange(reached, look);
        return reached ? kOk : reached.error().error;
      }
      std::this_thread::sleep_for(kConnectPause);
    }
  } catch (const std::exception& error) {
    bus_.log.write(BusLogLevel::kError, std::string("the system refused: ") + error.what());
    return kErrSystem;
  }
}

/// Looks are frequent, so a look is logged only when its result differs from the last call's.
void Client::logChange(const Result<void>& found, bool look) {
  const Error error = found ? kOk : found.error().error;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(lastFound_, error) == error && look) {
      return;
    }
  }
  if (found) {
    bus_.log.write(BusLogLevel::kInfo, "the agent accepts");
  } else {
    bus_.log.write(BusLogLevel::kError, "the agent is not reached: " + found.error().reason);
  }
}

Result<void> Client::connectOnce(Clock::time_point deadline, bool handshake) const {
  return checkFolder(bus_.folder).and_then([&](uid_t owner) -> Result<void> {
    const Guid agent = parseGuid(kAgentGuid);
    const Result<Dialled> dialled = dial({.folder = &bus_.folder,
                                          .folderOwner = owner,
                                          .rule = bus_.rule,
                                          .target = agent,
                                          .deadline = deadline,
                                          .handshake = handshake});
    if (!dialled) {
      return failed(dialled.error().error, bus_.folder.socketPath(agent) + ": " + dialled.error().reason);
    }
    return {};
  });
}

/// Closes without mutex_: Close waits for callbacks, which may use the client.
void Client::Disconnect() {
  std::vector<std::shared_ptr<Endpoint>> endpoints;
  {
    const std::lock_guard lock(mutex_);
    endpoints = endpoints_;
  }
  for (const std::shared_ptr<Endpoint>& endpoint : endpoints) {
    endpoint->Close();
  }
}

void Client::Uninit() {
  std::vector<std::shared_ptr<Endpoint>> endpoints;
  {
    const std::lock_guard lock(mutex_);
    ready_ = false;
    lastFound_.reset();
    endpoints.swap(endpoints_);
  }
  for (const std::shared_ptr<Endpoint>& endpoint : endpoints) {
    endpoint->Close();  // Disconnect may hold the endpoint too
  }
  endpoints.clear();
  bus_.log.close();
}

}  // namespace lunet
