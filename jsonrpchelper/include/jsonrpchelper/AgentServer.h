#pragma once

#include <json/value.h>

#include <string>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/BusServer.h"

/// The agent's methods. Implement, make one on the agent's server helper, and call StartListening on it.
/// Operations run on the bus's thread, one at a time; currentCaller() says who asks. An exception becomes
/// the JSON-RPC error answer: JsonRpcException with its code, any other as an internal error with its text.
class IAgentAbstract : public jsonrpchelper::BusServer<IAgentAbstract> {
 public:
  explicit IAgentAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual Json::Value startScanTask(const Json::Value& ctx, const std::string& desc,
                                    const Json::Value& params, int source, const std::string& token_id) = 0;
  virtual bool ctlBus(int action, const std::string& detail, int mark, const Json::Value& payload, int source,
                      const std::string& token_id) = 0;
  virtual Json::Value getBusList() = 0;
  virtual std::string getAVConfig(int config_type, int request_source) = 0;
  virtual bool setAVConfig(const std::string& config_str, int config_type, int request_source) = 0;
  virtual Json::Value startDeIsolate(const Json::Value& ctx, const std::string& desc,
                                     const Json::Value& params, int source, const std::string& token_id) = 0;
  virtual Json::Value getIsolationInfo() = 0;
  virtual bool ctlRegion(const std::string& desc, const Json::Value& items, int region_type, int source) = 0;
  virtual Json::Value getRegionInfo(int domain, int item_type, int region_type) = 0;
  virtual void cleanScanCache() = 0;
  virtual int getScanCacheDetail() = 0;
};
