// Any bytes on either channel, with all three servers listening. No exception leaves the callback. A request
// gets a JSON answer, or an empty one when it is a notification. A one-way message gets no answer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/ScanRecords.h"
#include "jsonrpchelper/IAgentAbstract.h"
#include "jsonrpchelper/IBusinessCAbstract.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "jsonrpchelper/IScanCAbstract.h"
#include "support/FakeEndpoint.h"

namespace {

using namespace jsonrpchelper;

// Each server overrides every operation: a missing method or notification of the table does not compile.

class Scan : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;
  void reportRiskInfo(const ReportRiskInfo& report) override {
    JsonReflect::VirusInfo().FromValue(report.risk_info);
    JsonReflect::MemoryRiskInfo().FromValue(report.risk_info);
  }
  void reportRiskFixInfo(const ReportRiskFixInfo& report) override {
    JsonReflect::VirusInfo().FromValue(report.risk_info);
    JsonReflect::RiskRepairResult().FromValue(report.risk_repair_result);
  }
  void reportScanBusOverView(const ReportScanBusOverView& report) override {
    JsonReflect::ScanBusOverView().FromValue(report.overview);
  }
  void reportScanBusStage(const ReportScanBusStage&) override {}
  void reportScanAttributeInfo(const ReportScanAttributeInfo&) override {}
};

class Business : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;
  void reportBusStatus(const ReportBusStatus&) override {}
  void reportBusProgress(const ReportBusProgress&) override { throw std::runtime_error("no"); }
};

class Agent : public IAgentAbstract {
 public:
  using IAgentAbstract::IAgentAbstract;
  std::optional<Json::Value> refusal(Access, const std::string&) override { return std::nullopt; }
  JsonObject startScanTask(const StartScanTask& request) override {
    JsonReflect::ScanParams().FromValue(request.params);
    return request.ctx;
  }
  bool ctlBus(const CtlBus&) override { throw jsonrpc::JsonRpcException(-1, "no"); }
  JsonArray getBusList(const GetBusList&) override { return {}; }
  std::string getAVConfig(const GetAVConfig&) override { return "{}"; }
  bool setAVConfig(const SetAVConfig& request) override {
    Json::Value settings;
    return CppJson::LoadJsonString(request.config_str, settings);
  }
  JsonObject startDeIsolate(const StartDeIsolate& request) override {
    JsonReflect::DeIsolateParams().FromValue(request.params);
    return request.params;
  }
  JsonArray getIsolationInfo(const GetIsolationInfo&) override { return {}; }
  bool ctlRegion(const CtlRegion& request) override {
    return JsonReflect::FilterRegionItem().FromValue(request.items);
  }
  JsonArray getRegionInfo(const GetRegionInfo&) override { return {}; }
  void cleanScanCache(const CleanScanCache&) override {}
  std::int32_t getScanCacheDetail(const GetScanCacheDetail&) override { throw 5; }
};

/// One helper with all servers, for all inputs.
struct World {
  testsupport::FakeEndpoint endpoint;
  IJsonRpcServerHelper helper;
  Scan scan{helper};
  Business business{helper};
  Agent agent{helper};

  World() {
    helper.registerOn(endpoint);
    scan.StartListening();
    business.StartListening();
    agent.StartListening();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World* const world = new World;
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (world->endpoint.deliver(lunet::kOnewayChannel, text, false).replied) {
    std::abort();
  }
  const auto delivery = world->endpoint.deliver(lunet::kRequestChannel, text, true);
  Json::Value answer;
  if (!delivery.replied || (!delivery.reply.empty() && !CppJson::LoadJsonString(delivery.reply, answer))) {
    std::abort();
  }
  return 0;
}
