#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/BusServer.h"

/// The agent's methods. Derive a class, make one object on the agent's server helper, and call StartListening
/// of the object. Operations run on the bus's thread, one at a time; currentCaller() gives the caller. An
/// exception becomes the JSON-RPC error answer: JsonRpcException with its code, any other as an internal
/// error with its text.
class IAgentAbstract : public jsonrpchelper::BusServer<IAgentAbstract> {
 public:
  explicit IAgentAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  /// Called before every operation. Returns the answer to a caller who may not call the method; the operation
  /// then does not run. Empty for a caller who may call the method.
  virtual std::optional<Json::Value> refusal(jsonrpchelper::Access access, const std::string& method) = 0;

  virtual jsonrpchelper::JsonObject startScanTask(const jsonrpchelper::StartScanTask& request) = 0;
  virtual bool ctlBus(const jsonrpchelper::CtlBus& request) = 0;
  virtual jsonrpchelper::JsonArray getBusList(const jsonrpchelper::GetBusList& request) = 0;
  virtual std::string getAVConfig(const jsonrpchelper::GetAVConfig& request) = 0;
  virtual bool setAVConfig(const jsonrpchelper::SetAVConfig& request) = 0;
  virtual jsonrpchelper::JsonObject startDeIsolate(const jsonrpchelper::StartDeIsolate& request) = 0;
  virtual jsonrpchelper::JsonArray getIsolationInfo(const jsonrpchelper::GetIsolationInfo& request) = 0;
  virtual bool ctlRegion(const jsonrpchelper::CtlRegion& request) = 0;
  virtual jsonrpchelper::JsonArray getRegionInfo(const jsonrpchelper::GetRegionInfo& request) = 0;
  virtual void cleanScanCache(const jsonrpchelper::CleanScanCache& request) = 0;
  virtual std::int32_t getScanCacheDetail(const jsonrpchelper::GetScanCacheDetail& request) = 0;
};
