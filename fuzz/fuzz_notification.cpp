// Any bytes on either channel, with all three servers listening: nothing leaves the callback, a request gets
// an answer that is JSON (or, a notification, an empty one), a one-way message none.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/ScanRecords.h"
#include "jsonrpchelper/AgentServer.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "jsonrpchelper/ScanServers.h"
#include "support/FakeEndpoint.h"

namespace {

class Scan : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;
  void reportRiskInfo(int, int, const Json::Value& risk, int, const std::string&) override {
    JsonReflect::VirusInfo().FromValue(risk);
    JsonReflect::MemoryRiskInfo().FromValue(risk);
  }
  void reportRiskFixInfo(int, int, const Json::Value& risk, int, const Json::Value& result,
                         const std::string&) override {
    JsonReflect::VirusInfo().FromValue(risk);
    JsonReflect::RiskRepairResult().FromValue(result);
  }
  void reportScanBusOverView(const Json::Value& overview, const std::string&) override {
    JsonReflect::ScanBusOverView().FromValue(overview);
  }
  void reportScanBusStage(const std::string&, int, const std::string&) override {}
  void reportScanAttributeInfo(const Json::Value&, int, const std::string&) override {}
};

class Business : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;
  void reportBusStatus(const Json::Value&, const std::string&, const Json::Value&, int, int,
                       const std::string&, int) override {}
  void reportBusProgress(int, const std::string&) override { throw std::runtime_error("no"); }
};

class Agent : public IAgentAbstract {
 public:
  using IAgentAbstract::IAgentAbstract;
  Json::Value startScanTask(const Json::Value& ctx, const std::string&, const Json::Value& params, int,
                            const std::string&) override {
    JsonReflect::ScanParams().FromValue(params);
    return ctx;
  }
  bool ctlBus(int, const std::string&, int, const Json::Value&, int, const std::string&) override {
    throw jsonrpc::JsonRpcException(-1, "no");
  }
  Json::Value getBusList() override { return Json::arrayValue; }
  std::string getAVConfig(int, int) override { return "{}"; }
  bool setAVConfig(const std::string& text, int, int) override {
    Json::Value settings;
    return CppJson::LoadJsonString(text, settings);
  }
  Json::Value startDeIsolate(const Json::Value&, const std::string&, const Json::Value& params, int,
                             const std::string&) override {
    JsonReflect::DeIsolateParams().FromValue(params);
    return params;
  }
  Json::Value getIsolationInfo() override { return Json::arrayValue; }
  bool ctlRegion(const std::string&, const Json::Value& items, int, int) override {
    return JsonReflect::FilterRegionItem().FromValue(items);
  }
  Json::Value getRegionInfo(int, int, int) override { return Json::arrayValue; }
  void cleanScanCache() override {}
  int getScanCacheDetail() override { throw 5; }
};

/// One helper with everything on it, for all inputs.
struct World {
  testsupport::FakeEndpoint endpoint;
  jsonrpchelper::IJsonRpcServerHelper helper;
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
