#include "service/BusLink.h"

#include <cstdio>

#include "json/CppJson.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "lunet/BusConfig.h"
#include "lunet/LogLevels.h"
#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "platform/Text.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

void takeLog(int level, const char* text) {
  CLogDebug::LogPrintStr(lunet::fromBus(level), __FILE_NAME__, "bus", __LINE__, text);
}

/// For the messages that JSON-RPC over the bus refuses, while their sender is the caller.
void takeBaseLog(int level, const char* text) {
  if (const std::optional<LogLevel> own = platform::fromCLog(level)) {
    if (const auto remark = admitLine(jsonrpchelper::currentCaller().process.uid)) {
      CLogDebug::LogPrintV(*own, __FILE_NAME__, "rpc", __LINE__, "%s%s", text, remark->c_str());
    }
  }
}

tl::unexpected<std::string> busFailure(const char* what, std::uint32_t error) {
  char text[96];
  std::snprintf(text, sizeof text, "%s failed: bus error 0x%08x", what, error);
  return platform::failure(text);
}

}  // namespace

platform::Expected<BusSettings> readBusSettings(const platform::InstallTree& tree,
                                                const std::string& logName) {
  using Kind = lunet::BusConfigFailure::Kind;
  const auto read = lunet::readBusConfig(tree.busConfig());
  if (!read && read.error().kind == Kind::kUnsafe) {
    return platform::failure("the bus configuration is not used: " + read.error().reason);
  }
  if (!read && read.error().kind != Kind::kMissing) {
    return platform::failure(tree.busConfig() + " cannot be read as a JSON object");
  }
  const Json::Value file = read.value_or(Json::objectValue);
  const Json::Value config = lunet::completeBusConfig(file, tree.root, {tree.log() + "/" + logName, logName});
  return BusSettings{lunet::compactText(config), lunet::socketDirectory(tree.root, file),
                     CppJson::readString(file, "group", "")};
}

platform::Expected<void> BusLink::prepare(const platform::InstallTree& tree, const BusSettings& settings) {
  if (const auto loaded = bus_.load(tree.busLibrary()); !loaded) {
    return platform::failure("the bus library cannot be used: " + loaded.error());
  }
  bus_.client()->SetLogCallback(takeLog);
  CLog::set_log_callback(takeBaseLog);
  if (const std::uint32_t error = bus_.init(settings.clientConfig, CUuid::generate()); error != lunet::kOk) {
    return busFailure("setting up the bus", error);
  }
  if (!bus_.createEndpoint()) {
    return platform::failure("the bus gives no endpoint");
  }
  return {};
}

platform::Expected<void> BusLink::open(const std::string& guid) {
  const std::uint32_t error = bus_.open(lunet::parseGuid(guid.c_str()));
  if (error == lunet::kErrInUse) {
    return platform::failure("another process has the agent's address on the bus of this tree");
  }
  if (error != lunet::kOk) {
    return busFailure("opening the agent's address", error);
  }
  return {};
}

}  // namespace agent
