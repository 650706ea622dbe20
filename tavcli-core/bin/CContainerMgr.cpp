#include "bin/CContainerMgr.h"

#include <cstdio>
#include <mutex>
#include <utility>

#include "bin/BusConfig.h"
#include "bin/Complain.h"
#include "bin/LogSetup.h"
#include "jsonrpchelper/Holders.h"
#include "lunet/ErrorText.h"
#include "platform/CLogDebug.h"
#include "platform/Files.h"

namespace {

constexpr std::uint32_t kConnectTimeoutSec = 10;
constexpr std::uint32_t kLookWithoutWait = 0;

/// Names a failed step of `init` or `start`.
bool fail(const char* function, int line, const char* text) {
  CLogDebug::LogPrintStr(LogLevel::kError, __FILE__, function, line, text);
  std::puts(text);
  return false;
}

/// Gives the reason, for the debug log and for the user on standard error.
bool explain(const char* function, int line, const std::string& why) {
  CLogDebug::LogPrintStr(LogLevel::kError, __FILE__, function, line, why);
  tavcli::complain("tavcli: " + why);
  return false;
}

/// The line for the user about a library that was not loaded, with the remedy. The loader's own words go to
/// the debug log.
std::string adviceOn(const std::string& library) {
  const auto safe = CDir::resolveSafe(library);
  return "the bus library is not loaded: " +
         (safe ? library + " is damaged or of another version: install the tree again" : safe.error());
}

}  // namespace

CContainerMgr::CContainerMgr(tavcli::ContainerConfig config) : config_(std::move(config)) {}

CContainerMgr::~CContainerMgr() {
  uninit();
}

bool CContainerMgr::init() {
  const std::lock_guard<CMutex> guard(lock_);
  if (initialised_) {
    return false;
  }
  if (!tavcli::initCLog()) {
    return fail("init", __LINE__, "initCLog failed");
  }
  if (!tavcli::initLog(config_)) {
    return fail("init", __LINE__, "initLog failed");
  }
  if (!initLunet()) {
    return fail("init", __LINE__, "initLunet failed");
  }
  initialised_ = true;
  return true;
}

bool CContainerMgr::initLunet() {
  if (config_.guid.empty()) {
    return false;
  }
  if (const auto loaded = bus_.load(config_.busLibraryPath); !loaded) {
    CLogDebug::LogPrintStr(LogLevel::kError, __FILE__, "initLunet", __LINE__, loaded.error());
    tavcli::complain("tavcli: " + adviceOn(config_.busLibraryPath));
    return false;
  }
  const auto busConfig = tavcli::readBusConfig(config_);
  if (!busConfig) {
    return explain("initLunet", __LINE__, busConfig.error());
  }
  if (const std::uint32_t error = bus_.init(*busConfig, config_.uuid); error != lunet::kOk) {
    return explain("initLunet", __LINE__,
                   "the bus library refuses its configuration: " + lunet::describeError(error));
  }
  bus_.client()->SetLogCallback(tavcli::lunetLogCallback);
  return true;
}

bool CContainerMgr::start() {
  const std::lock_guard<CMutex> guard(lock_);
  if (!initialised_) {
    return false;
  }
  if (const std::uint32_t error = bus_.client()->Connect(kConnectTimeoutSec); error != 0) {
    fail("start", __LINE__, "connect to lunet failed");
    explainMissingAgent(error);
    return false;
  }
  if (!createConEndpoint()) {
    return fail("start", __LINE__, "createConEndpoint failed");
  }
  jsonrpchelper::initJsonRpc();
  return true;
}

bool CContainerMgr::createConEndpoint() {
  if (!bus_.createEndpoint()) {
    return false;
  }
  if (const std::uint32_t error = bus_.open(lunet::parseGuid(config_.guid.c_str())); error != lunet::kOk) {
    return explain("createConEndpoint", __LINE__,
                   "the bus gives this console no address: " + lunet::describeError(error));
  }
  jsonrpchelper::setEndpoint(bus_.endpoint());
  return true;
}

void CContainerMgr::explainMissingAgent(std::uint32_t error) const {
  switch (error) {
    case lunet::kErrDenied:
      explain("start", __LINE__,
              "the agent of " + config_.installDir +
                  " does not admit this user: run as root, as the agent's user, or in the bus's group");
      break;
    case lunet::kErrPath:
      explain("start", __LINE__,
              "the bus's socket folder is unsafe or its path too long; see " + config_.logDir + config_.name +
                  "/" + config_.name + ".ipc.log");
      break;
    default:
      explain("start", __LINE__,
              "no agent answers on " + config_.installDir + ": start it with " + config_.installDir +
                  "bin/tavagentd --daemon --install-dir " + config_.installDir);
  }
}

bool CContainerMgr::agentAnswers() {
  return bus_.client()->Connect(kLookWithoutWait) == lunet::kOk;
}

void CContainerMgr::stop() {
  jsonrpchelper::stopJsonRpc();
}

bool CContainerMgr::uninit() {
  const std::lock_guard<CMutex> guard(lock_);
  if (!initialised_) {
    return false;
  }
  unInitLunet();
  CLogDebug::Close();
  initialised_ = false;
  return true;
}

void CContainerMgr::unInitLunet() {
  jsonrpchelper::setEndpoint(nullptr);
  if (const auto closed = bus_.close(); !closed) {
    CLogDebug::LogPrintStr(LogLevel::kError, __FILE__, "unInitLunet", __LINE__, closed.error());
  }
}
