#pragma once

#include <memory>
#include <string>

#include "jsonrpchelper/ConsoleNotifier.h"
#include "task/NotificationQueue.h"
#include "task/TaskEvents.h"
#include "task/TaskOwner.h"

namespace agent {

/// Sends the notifications of a task over the bus, only to the process that started the task.
class BusTaskEvents : public TaskEvents, public std::enable_shared_from_this<BusTaskEvents> {
 public:
  /// The owner passes these values with the request and gets them back with every state.
  struct Envelope {
    std::string token;
    Json::Value ctx;  ///< sent as {} when it is no object
    int source = 0;
  };
  BusTaskEvents(NotificationQueue& queue, lunet::IEndpoint& endpoint, const TaskOwner& owner,
                Envelope envelope);

  void state(json::TaskState state, const std::string& detail) override;
  void progress(int percent) override;
  void overview(const Json::Value& overview) override;
  void stage(int stage, const std::string& what) override;
  void attributes(const Json::Value& payload) override;
  void risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) override;
  void repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                const Json::Value& result) override;
  /// NotificationQueue::hasRoomFor the owner.
  bool hasRoom() const { return queue_.hasRoomFor(receiver_); }
  void waitForQuota(const std::function<bool()>& cancelled) override;
  bool ownerEnded() const override;
  void onDelivered(std::function<void()> action) override;

 private:
  void post(NotificationKind kind, std::size_t bytes, std::function<std::uint32_t(BusTaskEvents&)> send);

  NotificationQueue& queue_;
  const Envelope envelope_;
  const lunet::PeerIdentity owner_;
  jsonrpchelper::ConsoleNotifier notifier_;  // on the queue's thread only
  const std::shared_ptr<Receiver> receiver_;
};

}  // namespace agent
