#pragma once

#include <json/value.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "jsonrpchelper/IAgentAbstract.h"
#include "jsonrpchelper/IBusinessCAbstract.h"
#include "jsonrpchelper/IScanCAbstract.h"
#include "support/Json.h"

namespace rpctest {

using testsupport::jsonOf;
using testsupport::jsonText;

using namespace jsonrpchelper;

/// A call that reached a server, as a JSON array: the name, then the arguments in the table's order.
class CallLog {
 public:
  template <class Method>
  void add(const Method& request) {
    Json::Value call(Json::arrayValue);
    call.append(Method::kName);
    const auto append = [&call](const char*, const auto& argument) { call.append(Json::Value(argument)); };
    Method::members(request, append);
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

/// The parts that all recorders share.
class Recorder {
 public:
  CallLog log;
  std::function<void()> before = [] {};  ///< runs first in every operation; may throw

 protected:
  template <class Method>
  void record(const Method& request) {
    before();
    log.add(request);
  }
};

class RecordingScan : public IScanCAbstract, public Recorder {
 public:
  using IScanCAbstract::IScanCAbstract;

  void reportRiskInfo(const ReportRiskInfo& r) override { record(r); }
  void reportRiskFixInfo(const ReportRiskFixInfo& r) override { record(r); }
  void reportScanBusOverView(const ReportScanBusOverView& r) override { record(r); }
  void reportScanBusStage(const ReportScanBusStage& r) override { record(r); }
  void reportScanAttributeInfo(const ReportScanAttributeInfo& r) override { record(r); }
};

class RecordingBusiness : public IBusinessCAbstract, public Recorder {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;

  void reportBusStatus(const ReportBusStatus& r) override { record(r); }
  void reportBusProgress(const ReportBusProgress& r) override { record(r); }
};

/// Answers every method with the member of the right kind.
class RecordingAgent : public IAgentAbstract, public Recorder {
 public:
  using IAgentAbstract::IAgentAbstract;
  JsonObject object;
  JsonArray array;
  std::string text;
  bool flag = true;
  std::int32_t number = 0;
  /// The answer to a caller who may change nothing; nothing: the caller may change everything.
  std::optional<Json::Value> refused;

  std::optional<Json::Value> refusal(Access access, const std::string& /*method*/) override {
    return access == Access::kEverybody ? std::nullopt : refused;
  }
  JsonObject startScanTask(const StartScanTask& r) override { return answer(r); }
  bool ctlBus(const CtlBus& r) override { return answer(r); }
  JsonArray getBusList(const GetBusList& r) override { return answer(r); }
  std::string getAVConfig(const GetAVConfig& r) override { return answer(r); }
  bool setAVConfig(const SetAVConfig& r) override { return answer(r); }
  JsonObject startDeIsolate(const StartDeIsolate& r) override { return answer(r); }
  JsonArray getIsolationInfo(const GetIsolationInfo& r) override { return answer(r); }
  bool ctlRegion(const CtlRegion& r) override { return answer(r); }
  JsonArray getRegionInfo(const GetRegionInfo& r) override { return answer(r); }
  void cleanScanCache(const CleanScanCache& r) override { return answer(r); }
  std::int32_t getScanCacheDetail(const GetScanCacheDetail& r) override { return answer(r); }

 private:
  template <class Method>
  typename Method::Result answer(const Method& request) {
    record(request);
    if constexpr (!std::is_void_v<typename Method::Result>) {
      return std::get<typename Method::Result&>(std::tie(object, array, text, flag, number));
    }
  }
};

/// A value of each kind, different for every `seed`.
Json::Value sampleOf(JsonKind kind, int seed);
/// A sample for every parameter, by name.
Json::Value sampleParameters(const MethodRow& row);
/// The call as a recorder logs it for those parameters.
Json::Value recordedCall(const MethodRow& row, const Json::Value& parameters);
/// One value of every JSON kind that is not the given one.
std::vector<Json::Value> valuesOfOtherKinds(JsonKind kind);
std::string requestText(const std::string& method, const Json::Value& params, const Json::Value& id);
std::string notificationText(const std::string& method, const Json::Value& params);
std::string rowName(const MethodRow& row);

}  // namespace rpctest

namespace jsonrpchelper {
inline void PrintTo(const MethodRow& row, std::ostream* out) {
  *out << row.name;
}
}  // namespace jsonrpchelper
