#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "json/Values.h"

namespace agent {

/// What a task tells its owner, in the order of the calls. None waits or throws, waitForRoom apart. Any
/// thread.
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
  /// Waits while too much is on its way to an owner who takes it slowly, unless cancelled.
  virtual void waitForRoom(const std::function<bool()>& cancelled) = 0;
  /// Runs once, on another thread, when all that was told before has been taken or given up.
  virtual void whenTold(std::function<void()> action) = 0;
};

}  // namespace agent
