#include "task/BusTaskEvents.h"

#include <optional>

#include "platform/ProcessStat.h"
#include "platform/Text.h"

namespace agent {

namespace {

/// "type" and "business_type" of every scan.
constexpr std::int32_t kScanTask = json::toNumber(json::BusinessType::kScan);
constexpr std::size_t kSmall = 512;  // bytes in memory: a state, a stage, a counter
constexpr std::size_t kRisk = 4096;  // bytes in memory: a risk with its paths

}  // namespace

BusTaskEvents::BusTaskEvents(NotificationQueue& queue, lunet::IEndpoint& endpoint, const TaskOwner& owner,
                             Envelope envelope)
    : queue_(queue),
      envelope_(std::move(envelope)),
      owner_(owner.process),
      notifier_(endpoint, owner.guid, owner.process),
      receiver_(std::make_shared<Receiver>(
          "the console of process " + std::to_string(owner.process.pid),
          owner.process.trusted ? std::nullopt : std::optional<uid_t>(owner.process.uid))) {}

/// The queued notification keeps this object alive.
void BusTaskEvents::post(NotificationKind kind, std::size_t bytes,
                         std::function<std::uint32_t(BusTaskEvents&)> send) {
  queue_.post(receiver_, kind, bytes,
              [self = shared_from_this(), send = std::move(send)] { return send(*self); });
}

void BusTaskEvents::state(json::TaskState state, const std::string& detail) {
  post(NotificationKind::kKept, kSmall + detail.size(),
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
  post(NotificationKind::kProgress, kSmall, [percent](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportBusProgress{.progress = percent, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::overview(const Json::Value& overview) {
  post(NotificationKind::kOverview, kSmall, [overview](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportScanBusOverView{.overview = overview, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::stage(int stage, const std::string& what) {
  post(NotificationKind::kKept, kSmall, [stage, what](BusTaskEvents& self) {
    return self.notifier_.send(
        jsonrpchelper::ReportScanBusStage{.datail = what, .stage = stage, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::attributes(const Json::Value& payload) {
  post(NotificationKind::kKept, kSmall, [payload](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportScanAttributeInfo{
        .payload = payload, .source = self.envelope_.source, .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) {
  post(NotificationKind::kKept, kRisk, [kind, handling, info](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportRiskInfo{.business_type = kScanTask,
                                                             .fix_method = json::toFixMethod(handling),
                                                             .risk_info = info,
                                                             .risk_info_type = json::toNumber(kind),
                                                             .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                             const Json::Value& result) {
  post(NotificationKind::kKept, kRisk, [kind, handling, info, result](BusTaskEvents& self) {
    return self.notifier_.send(jsonrpchelper::ReportRiskFixInfo{.business_type = kScanTask,
                                                                .fix_method = json::toFixMethod(handling),
                                                                .risk_info = info,
                                                                .risk_info_type = json::toNumber(kind),
                                                                .risk_repair_result = result,
                                                                .token_id = self.envelope_.token});
  });
}

void BusTaskEvents::waitForQuota(const std::function<bool()>& cancelled) {
  queue_.waitForQuota(receiver_, cancelled);
}

bool BusTaskEvents::ownerEnded() const {
  const auto now = platform::processStat(owner_.pid);
  return now ? now->startTicks != owner_.startTicks : now.error() == platform::NoProcessStat::kGone;
}

void BusTaskEvents::onDelivered(std::function<void()> action) {
  queue_.onDelivered(receiver_, std::move(action));
}

}  // namespace agent
