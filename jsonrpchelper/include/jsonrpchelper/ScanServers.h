#pragma once

#include <json/value.h>

#include <string>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/BusServer.h"

/// The console's receivers of the agent's notifications. Implement, make one of each on serverHelper(), and
/// call StartListening on it. Operations run on the bus's thread; parameters are checked before they do.
/// No answer goes back.
class IScanCAbstract : public jsonrpchelper::BusServer<IScanCAbstract> {
 public:
  explicit IScanCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual void reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info,
                              int risk_info_type, const std::string& token_id) = 0;
  virtual void reportRiskFixInfo(int business_type, int fix_method, const Json::Value& risk_info,
                                 int risk_info_type, const Json::Value& risk_repair_result,
                                 const std::string& token_id) = 0;
  virtual void reportScanBusOverView(const Json::Value& overview, const std::string& token_id) = 0;
  virtual void reportScanBusStage(const std::string& datail, int stage, const std::string& token_id) = 0;
  virtual void reportScanAttributeInfo(const Json::Value& payload, int source,
                                       const std::string& token_id) = 0;
};

class IBusinessCAbstract : public jsonrpchelper::BusServer<IBusinessCAbstract> {
 public:
  explicit IBusinessCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual void reportBusStatus(const Json::Value& ctx, const std::string& detail, const Json::Value& params,
                               int source, int state, const std::string& token_id, int type) = 0;
  virtual void reportBusProgress(int progress, const std::string& token_id) = 0;
};
