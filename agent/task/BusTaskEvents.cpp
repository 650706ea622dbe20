#include "task/BusTaskEvents.h"

#include <optional>

#include "platform/Text.h"

namespace agent {

namespace {

constexpr int kScanTask = 0;         // "type" and "business_type" of every scan
constexpr std::size_t kSmall = 512;  // bytes: a state, a stage, a counter
constexpr std::size_t kRisk = 4096;  // bytes: a risk with its paths, as a value in memory

Json::Value objectOrEmpty(const Json::Value& value) {
  return value.isObject() ? value : Json::Value(Json::objectValue);
}

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

void BusTaskEvents::state(State state, const std::string& detail) {
  post(NoticeKind::kKept, kSmall + detail.size(),
       [state, text = platform::visibleText(detail)](BusTaskEvents& self) {
         return self.notifier_.reportBusStatus(objectOrEmpty(self.envelope_.ctx), text,
                                               Json::Value(Json::objectValue), self.envelope_.source, state,
                                               self.envelope_.token, kScanTask);
       });
}

void BusTaskEvents::progress(int percent) {
  post(NoticeKind::kProgress, kSmall, [percent](BusTaskEvents& self) {
    return self.notifier_.reportBusProgress(percent, self.envelope_.token);
  });
}

void BusTaskEvents::overview(const Json::Value& overview) {
  post(NoticeKind::kOverview, kSmall, [overview](BusTaskEvents& self) {
    return self.notifier_.reportScanBusOverView(overview, self.envelope_.token);
  });
}

void BusTaskEvents::stage(int stage, const std::string& what) {
  post(NoticeKind::kKept, kSmall, [stage, what](BusTaskEvents& self) {
    return self.notifier_.reportScanBusStage(what, stage, self.envelope_.token);
  });
}

void BusTaskEvents::attributes(const Json::Value& payload) {
  post(NoticeKind::kKept, kSmall, [payload](BusTaskEvents& self) {
    return self.notifier_.reportScanAttributeInfo(payload, self.envelope_.source, self.envelope_.token);
  });
}

void BusTaskEvents::risk(int kind, int fixMethod, const Json::Value& info) {
  post(NoticeKind::kKept, kRisk, [kind, fixMethod, info](BusTaskEvents& self) {
    return self.notifier_.reportRiskInfo(kScanTask, fixMethod, info, kind, self.envelope_.token);
  });
}

void BusTaskEvents::repaired(int kind, int fixMethod, const Json::Value& info, const Json::Value& result) {
  post(NoticeKind::kKept, kRisk, [kind, fixMethod, info, result](BusTaskEvents& self) {
    return self.notifier_.reportRiskFixInfo(kScanTask, fixMethod, info, kind, result, self.envelope_.token);
  });
}

void BusTaskEvents::waitForRoom(const std::function<bool()>& cancelled) {
  outbox_.waitForRoom(box_, cancelled);
}

void BusTaskEvents::whenTold(std::function<void()> action) {
  outbox_.whenEmpty(box_, std::move(action));
}

}  // namespace agent
