#include "task/BusTaskEvents.h"

#include <optional>

#include "platform/Text.h"

namespace agent {

namespace {

/// "type" and "business_type" of every scan.
constexpr std::int32_t kScanTask = json::toNumber(json::BusinessType::kScan);
constexpr std::size_t kSmall = 512;  // bytes: a state, a stage, a counter
constexpr std::size_t kRisk = 4096;  // bytes: a risk with its paths, as a value in memory

std::string nameOf(const TaskOwner& owner) {
  return "the console of process " + std::to_string(owner.process.pid);
}

/// The user, when he is not trusted: see Mailbox.
std::optional<uid_t> memberOf(const TaskOwner& owner) {
  return owner.process.trusted ? std::nullopt : std::optional<uid_t>(owner.process.uid);
}

}  // namespace

BusTaskEvents::BusTaskEvents(Outbox& outbox, lunet::IEndpoint& endpoint, const TaskOwner& owner,
                             Envelope envelope)
    : outbox_(outbox),
      envelope_(std::move(envelope)),
      notifier_(endpoint, owner.guid, owner.process),
      box_(std::make_shared<Mailbox>(nameOf(owner), memberOf(owner))) {}

/// The notice keeps its sender alive until it has left.
void BusTaskEvents::post(NoticeKind kind, std::size_t bytes,
                         std::function<std::uint32_t(BusTaskEvents&)> send) {
  outbox_.post(box_, kind, bytes,
               [self = shared_from_this(), send = std::move(send)] { return send(*self); });
}

void BusTaskEvents::state(json::TaskState state, const std::string& detail) {
  post(NoticeKind::kKept, kSmall + detail.size(),
       [state, text = platform::visibleText(detail)](BusTaskEvents& self) {
         return self.notifier_.send(jsonrpchelper::ReportBusStatus{.ctx = self.envelope_.ctx,
                                                                   .detail = text,
                                                                   .params = {},
                                                                   .source = self.envelope_.source,
                                                                   .state = json::toNumber(state),
                                                                   .token_id = self.envelope_.token,
                                                                   .type = kScanTask});
       });
}

void BusTaskEvents::progress(int percent) {
  post(NoticeKind::kProgress, kSmall, [percent](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportBusProgress{.progress = percent, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::overview(const Json::Value& overview) {
  post(NoticeKind::kOverview, kSmall, [overview](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportScanBusOverView{.overview = overview, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::stage(int stage, const std::string& what) {
  post(NoticeKind::kKept, kSmall, [stage, what](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportScanBusStage{.datail = what, .stage = stage, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::attributes(const Json::Value& payload) {
  post(NoticeKind::kKept, kSmall, [payload](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportScanAttributeInfo{
        .payload = payload, .source = self.envelope_.source, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) {
  post(NoticeKind::kKept, kRisk, [kind, handling, info](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportRiskInfo{.business_type = kScanTask,
                                                             .fix_method = json::toFixMethod(handling),
                                                             .risk_info = info,
                                                             .risk_info_type = json::toNumber(kind),
                                                             .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                             const Json::Value& result) {
  post(NoticeKind::kKept, kRisk, [kind, handling, info, result](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportRiskFixInfo{.business_type = kScanTask,
                                                                .fix_method = json::toFixMethod(handling),
                                                                .risk_info = info,
                                                                .risk_info_type = json::toNumber(kind),
                                                                .risk_repair_result = result,
                                                                .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::waitForRoom(const std::function<bool()>& cancelled) {
  outbox_.waitForRoom(box_, cancelled);
}

void BusTaskEvents::whenTold(std::function<void()> action) {
  outbox_.whenEmpty(box_, std::move(action));
}

}  // namespace agent
