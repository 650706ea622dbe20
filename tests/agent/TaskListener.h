#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "json/CppJson.h"
#include "json/Values.h"
#include "support/Wait.h"
#include "task/RiskRecords.h"
#include "task/TaskEvents.h"

namespace agent {

/// Records the notifications of a task; can delay detections. Any thread.
class TaskListener final : public TaskEvents {
 public:
  void state(json::TaskState state, const std::string& detail) override {
    const std::lock_guard guard(mutex_);
    states_.push_back(state);
    detail_ = detail;
    if (state == json::TaskState::kStarted) {
      startDetail_ = detail;
    }
  }
  void progress(int percent) override {
    const std::lock_guard guard(mutex_);
    percents_.push_back(percent);
  }
  void overview(const Json::Value& overview) override {
    const std::lock_guard guard(mutex_);
    overview_ = overview;
  }
  void stage(int stage, const std::string&) override {
    {
      const std::lock_guard guard(mutex_);
      stages_.push_back(stage);
    }
    if (onStage) {
      onStage(stage);
    }
  }
  void attributes(const Json::Value& payload) override {
    if (attributesFail) {
      throw std::runtime_error("no attributes");
    }
    const std::lock_guard guard(mutex_);
    attributes_ = payload;
  }
  void risk(json::RiskInfoType kind, json::Handling handling, const Json::Value& info) override {
    const std::lock_guard guard(mutex_);
    handlings_.push_back(handling);
    kind == json::RiskInfoType::kFile ? risks_.push_back(json::decodePath(info["item"].asString()))
                                      : processes_.push_back(info["process_info"]["pid"].asInt());
    lastRisk_ = info;
  }
  void repaired(json::RiskInfoType kind, json::Handling handling, const Json::Value& info,
                const Json::Value& result) override {
    const std::lock_guard guard(mutex_);
    handlings_.push_back(handling);
    kind == json::RiskInfoType::kFile ? files_[json::decodePath(info["item"].asString())] = result
                                      : ofProcesses_[info["process_info"]["pid"].asInt()] = result;
  }
  void waitForQuota(const std::function<bool()>& cancelled) override {
    waiting = true;
    EXPECT_TRUE(testsupport::waitFor([&] { return !held || cancelled(); }));
  }
  bool ownerEnded() const override {
    ++asked;
    return ended;
  }
  void onDelivered(std::function<void()> action) override { action(); }

  std::vector<json::TaskState> states() const { return copied(states_); }
  std::string detail() const { return copied(detail_); }  ///< of the last state
  std::string startDetail() const { return copied(startDetail_); }
  std::vector<int> percents() const { return copied(percents_); }
  std::vector<int> stages() const { return copied(stages_); }
  Json::Value attributes() const { return copied(attributes_); }
  std::vector<std::string> risks() const { return copied(risks_); }  ///< the files, as notified
  std::vector<int> processes() const { return copied(processes_); }  ///< by pid
  /// Of each detection and of each result.
  std::vector<json::Handling> handlings() const { return copied(handlings_); }
  Json::Value lastRisk() const { return copied(lastRisk_); }
  std::string lastName() const { return lastRisk()["risk_name"].asString(); }  ///< of a detection in a file
  std::string lastMd5() const { return lastRisk()["filemd5_src"].asString(); }
  int counted(const char* what) const { return copied(overview_)[what].asInt(); }
  /// The result for a file; nullopt without one.
  std::optional<json::HandleResult> handled(const std::string& path) const {
    return json::fromNumber<json::HandleResult>(result(files_, path, "handle_result").asInt());
  }
  std::string handledHow(const std::string& path) const {
    return result(files_, path, "handle_detail").asString();
  }
  std::int64_t handledAtSec(const std::string& path) const {
    return result(files_, path, "handle_time").asInt64();
  }
  std::optional<json::HandleResult> handled(pid_t pid) const {
    return json::fromNumber<json::HandleResult>(result(ofProcesses_, pid, "handle_result").asInt());
  }
  std::string handledHow(pid_t pid) const { return result(ofProcesses_, pid, "handle_detail").asString(); }

  std::function<void(int)> onStage;   ///< on the task's thread
  std::atomic<bool> ended{false};     ///< the process that started the task
  mutable std::atomic<int> asked{0};  ///< whether it has ended
  std::atomic<bool> held{false}, waiting{false};
  std::atomic<bool> attributesFail{false};

 private:
  template <class Value>
  Value copied(const Value& value) const {
    const std::lock_guard guard(mutex_);
    return value;
  }
  template <class Key>
  Json::Value result(const std::map<Key, Json::Value>& results, const Key& key, const char* member) const {
    const std::lock_guard guard(mutex_);
    const auto found = results.find(key);
    return found == results.end() ? Json::Value() : found->second[member];
  }

  mutable std::mutex mutex_;
  std::vector<json::TaskState> states_;
  std::vector<int> percents_, stages_, processes_;
  std::string detail_, startDetail_;
  std::vector<std::string> risks_;
  std::vector<json::Handling> handlings_;
  std::map<std::string, Json::Value> files_;
  std::map<pid_t, Json::Value> ofProcesses_;
  Json::Value overview_, attributes_, lastRisk_;
};

}  // namespace agent
