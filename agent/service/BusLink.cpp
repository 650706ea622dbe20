#include "service/BusLink.h"

#include <cstdio>

#include "lunet/LogLevels.h"
#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "platform/Text.h"

namespace agent {

namespace {

void takeLog(int level, const char* text) {
  CLogDebug::LogPrintStr(lunet::fromBus(level), __FILE_NAME__, "bus", __LINE__, text);
}

/// What JSON-RPC over the bus refuses.
void takeBaseLog(int level, const char* text) {
  if (const std::optional<LogLevel> own = platform::fromCLog(level)) {
    CLogDebug::LogPrintStr(*own, __FILE_NAME__, "rpc", __LINE__, text);
  }
}

std::string errorText(const char* what, std::uint32_t error) {
  char text[96];
  std::snprintf(text, sizeof text, "%s failed: bus error 0x%08x", what, error);
  return text;
}

}  // namespace

std::string BusLink::prepare(const Tree& tree, const BusSettings& settings) {
  std::string failure = library_.load(tree.busLibrary());
  if (failure.empty()) {
    failure = library_.createClient();
  }
  if (!failure.empty()) {
    return "the bus library cannot be used: " + failure;
  }
  library_.client()->SetLogCallback(takeLog);
  CLog::set_log_callback(takeBaseLog);
  std::string uuid;
  CUuid::generate(uuid);
  const std::uint32_t error = library_.client()->Init(settings.clientConfig.c_str(), uuid.c_str());
  if (error != lunet::kOk) {
    return errorText("setting up the bus", error);
  }
  initialised_ = true;
  endpoint_ = library_.client()->CreateEndpoint();
  return endpoint_ != nullptr ? std::string() : "the bus gives no endpoint";
}

std::string BusLink::open(const std::string& guid) {
  const std::uint32_t error = endpoint_->Open(lunet::parseGuid(guid.c_str()));
  if (error == lunet::kErrInUse) {
    return "another process has the agent's address on the bus of this tree";
  }
  return error == lunet::kOk ? std::string() : errorText("opening the agent's address", error);
}

BusLink::~BusLink() {
  lunet::IClient* client = library_.client();
  if (client == nullptr) {
    return;
  }
  if (endpoint_ != nullptr) {
    client->DestroyEndpoint(endpoint_);
  }
  if (initialised_) {
    client->Uninit();
  }
}

}  // namespace agent
