#pragma once

#include <json/value.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "jsonrpchelper/AgentServer.h"
#include "jsonrpchelper/ScanServers.h"

namespace rpctest {

/// Calls that reached a server: the name, then the arguments in their order, as a JSON array.
class CallLog {
 public:
  template <class... Arguments>
  void add(const char* name, const Arguments&... arguments) {
    Json::Value call(Json::arrayValue);
    call.append(name);
    (call.append(Json::Value(arguments)), ...);
    const std::lock_guard<std::mutex> guard(lock_);
    calls_.push_back(call);
  }
  std::vector<Json::Value> calls() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return calls_;
  }
  std::size_t size() const { return calls().size(); }

 private:
  mutable std::mutex lock_;
  std::vector<Json::Value> calls_;
};

/// Runs first in every operation of the recorders: may throw.
using Before = std::function<void()>;

class RecordingScan : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;
  CallLog log;
  Before before = [] {};

  void reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info, int risk_info_type,
                      const std::string& token_id) override;
  void reportRiskFixInfo(int business_type, int fix_method, const Json::Value& risk_info, int risk_info_type,
                         const Json::Value& risk_repair_result, const std::string& token_id) override;
  void reportScanBusOverView(const Json::Value& overview, const std::string& token_id) override;
  void reportScanBusStage(const std::string& datail, int stage, const std::string& token_id) override;
  void reportScanAttributeInfo(const Json::Value& payload, int source, const std::string& token_id) override;
};

class RecordingBusiness : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;
  CallLog log;
  Before before = [] {};

  void reportBusStatus(const Json::Value& ctx, const std::string& detail, const Json::Value& params,
                       int source, int state, const std::string& token_id, int type) override;
  void reportBusProgress(int progress, const std::string& token_id) override;
};

/// Answers every method with what is set; the defaults are of the right kind.
class RecordingAgent : public IAgentAbstract {
 public:
  using IAgentAbstract::IAgentAbstract;
  CallLog log;
  Before before = [] {};
  Json::Value object{Json::objectValue};
  Json::Value array{Json::arrayValue};
  std::string text;
  bool flag = true;
  int number = 0;

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
};

/// A value of each kind, different for every `seed`.
Json::Value sampleOf(jsonrpchelper::JsonKind kind, int seed);
/// A sample for every parameter, by name.
Json::Value sampleParameters(const jsonrpchelper::MethodRow& row);
/// The call as a recorder logs it for those parameters.
Json::Value recordedCall(const jsonrpchelper::MethodRow& row, const Json::Value& parameters);
/// One value of every JSON kind that is not the given one.
std::vector<Json::Value> valuesOfOtherKinds(jsonrpchelper::JsonKind kind);
std::string requestText(const std::string& method, const Json::Value& params, const Json::Value& id);
std::string notificationText(const std::string& method, const Json::Value& params);
/// Parses; a test failure and null when it does not.
Json::Value parsed(const std::string& text);
const jsonrpchelper::MethodRow& rowNamed(const std::vector<jsonrpchelper::MethodRow>& rows,
                                         const std::string& name);
std::string rowName(const jsonrpchelper::MethodRow& row);

}  // namespace rpctest

namespace jsonrpchelper {
inline void PrintTo(const MethodRow& row, std::ostream* out) {
  *out << row.name;
}
}  // namespace jsonrpchelper
