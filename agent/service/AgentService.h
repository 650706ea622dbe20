#pragma once

#include <optional>

#include "jsonrpchelper/IAgentAbstract.h"
#include "store/Store.h"
#include "task/TaskManager.h"

namespace agent {

/// The agent's methods, with the limits of ServiceLimits.h on their requests. The bus calls one method at a
/// time, on the bus's delivery thread. The table of methods says who may call which method. Each change and
/// each refusal is one line in the log and in the audit record.
class AgentService : public IAgentAbstract {
 public:
  /// group: its members may call Access::kMembers, as root and the agent's own user may.
  AgentService(jsonrpchelper::IJsonRpcServerHelper& helper, Store& store, TaskManager& tasks,
               std::optional<gid_t> group);

  std::optional<Json::Value> refusal(jsonrpchelper::Access access, const std::string& method) override;

  jsonrpchelper::JsonObject startScanTask(const jsonrpchelper::StartScanTask& request) override;
  bool ctlBus(const jsonrpchelper::CtlBus& request) override;
  jsonrpchelper::JsonArray getBusList(const jsonrpchelper::GetBusList& request) override;
  std::string getAVConfig(const jsonrpchelper::GetAVConfig& request) override;
  bool setAVConfig(const jsonrpchelper::SetAVConfig& request) override;
  jsonrpchelper::JsonObject startDeIsolate(const jsonrpchelper::StartDeIsolate& request) override;
  jsonrpchelper::JsonArray getIsolationInfo(const jsonrpchelper::GetIsolationInfo& request) override;
  bool ctlRegion(const jsonrpchelper::CtlRegion& request) override;
  jsonrpchelper::JsonArray getRegionInfo(const jsonrpchelper::GetRegionInfo& request) override;
  void cleanScanCache(const jsonrpchelper::CleanScanCache& request) override;
  std::int32_t getScanCacheDetail(const jsonrpchelper::GetScanCacheDetail& request) override;

 private:
  bool changed(const CallerId& caller, const char* method, const std::string& object,
               const platform::Expected<void>& outcome);

  Store& store_;
  TaskManager& tasks_;
  const std::optional<gid_t> group_;
};

}  // namespace agent
