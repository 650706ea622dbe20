#pragma once

#include <memory>
#include <string>

#include "jsonrpchelper/ConsoleNotifier.h"
#include "task/Outbox.h"
#include "task/TaskEvents.h"
#include "task/TaskOwner.h"

namespace agent {

/// A task's words as notifications on the bus, to the process that started it and to no other.
class BusTaskEvents : public TaskEvents, public std::enable_shared_from_this<BusTaskEvents> {
 public:
  /// What its owner gave along and gets back with every state.
  struct Envelope {
    std::string token;
    Json::Value ctx;  ///< sent as {} when it is no object
    int source = 0;
  };
  BusTaskEvents(Outbox& outbox, lunet::IEndpoint& endpoint, const TaskOwner& owner, Envelope envelope);

  void state(json::TaskState state, const std::string& detail) override;
  void progress(int percent) override;
  void overview(const Json::Value& overview) override;
  void stage(int stage, const std::string& what) override;
  void attributes(const Json::Value& payload) override;
  void risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) override;
  void repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                const Json::Value& result) override;
  void waitForRoom(const std::function<bool()>& cancelled) override;
  void whenTold(std::function<void()> action) override;

 private:
  void post(NoticeKind kind, std::size_t bytes, std::function<std::uint32_t(BusTaskEvents&)> send);

  Outbox& outbox_;
  const Envelope envelope_;
  jsonrpchelper::ConsoleNotifier notifier_;  // used on the outbox's thread only
  const std::shared_ptr<Mailbox> box_;
};

}  // namespace agent
