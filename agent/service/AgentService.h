#pragma once

#include <optional>

#include "jsonrpchelper/AgentServer.h"
#include "store/Store.h"
#include "task/TaskManager.h"

namespace agent {

/// The agent's methods as the bus calls them, one at a time, on the bus's thread: each says who may call it,
/// does it, and leaves a line in the log and, for a change, in the audit record.
class AgentService : public IAgentAbstract {
 public:
  /// group: whose members may change what the agent keeps, beside root and the agent's own user.
  AgentService(jsonrpchelper::IJsonRpcServerHelper& helper, Store& store, TaskManager& tasks,
               std::optional<gid_t> group);

  Json::Value startScanTask(const Json::Value& ctx, const std::string& desc, const Json::Value& params,
                            int source, const std::string& token_id) override;
  bool ctlBus(int action, const std::string& detail, int mark, const Json::Value& payload, int source,
              const std::string& token_id) override;
  Json::Value getBusList() override;
  std::string getAVConfig(int config_type, int request_source) override;
  bool setAVConfig(const std::string& config_str, int config_type, int request_source) override;
  Json::Value startDeIsolate(const Json::Value& ctx, const std::string& desc, const Json::Value& params,
                             int source, const std::string& token_id) override;
  Json::Value getIsolationInfo() override;
  bool ctlRegion(const std::string& desc, const Json::Value& items, int region_type, int source) override;
  Json::Value getRegionInfo(int domain, int item_type, int region_type) override;
  void cleanScanCache() override;
  int getScanCacheDetail() override;

 private:
  bool allowed(const CallerId& caller, const char* action);
  bool changed(const CallerId& caller, const char* action, const std::string& object, bool ok,
               const std::string& why);

  Store& store_;
  TaskManager& tasks_;
  const std::optional<gid_t> group_;
};

}  // namespace agent
