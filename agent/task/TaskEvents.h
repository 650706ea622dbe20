#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "json/Values.h"

namespace agent {

/// The notifications of a task to its owner, delivered in the order of the calls. No call throws; only
/// waitForQuota waits. Any thread.
class TaskEvents {
 public:
  virtual ~TaskEvents() = default;
  virtual void state(json::TaskState state, const std::string& detail) = 0;
  virtual void progress(int percent) = 0;
  virtual void overview(const Json::Value& overview) = 0;
  virtual void stage(int stage, const std::string& what) = 0;
  virtual void attributes(const Json::Value& payload) = 0;
  virtual void risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) = 0;
  virtual void repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                        const Json::Value& result) = 0;
  /// Waits while too many notifications wait for a slow owner, unless `cancelled` returns true.
  virtual void waitForQuota(const std::function<bool()>& cancelled) = 0;
  /// Whether the process that started the task is gone.
  virtual bool ownerEnded() const = 0;
  /// `action` runs once, on another thread, when all notifications so far are delivered or dropped.
  virtual void onDelivered(std::function<void()> action) = 0;
};

}  // namespace agent
