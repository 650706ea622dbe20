#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

/// What the SCAN command, the entry routine and the displays of the agent's notifications share about the
/// running scan. One a process. Any thread: the command runs on the main thread, the displays on the bus's
/// delivery thread.
class ScanRunState {
 public:
  /// Made on first use, lives to the end of the process.
  static ScanRunState& instance();

  ScanRunState() = default;
  ScanRunState(const ScanRunState&) = delete;
  ScanRunState& operator=(const ScanRunState&) = delete;

  /// Where the batch report is written; bytes as typed.
  std::string log_path() const;
  void set_log_path(const std::string& path);
  /// The last path given after PATH; bytes as typed.
  std::string scan_path() const;
  void set_scan_path(const std::string& path);
  /// 1 once an unattended run has been asked for; there is no way back within a process.
  std::int32_t batch_mode() const { return batch_mode_; }
  void set_batch_mode() { batch_mode_ = 1; }
  /// The handling that the agent's settings gave at the last batch start: 1 report only, 2 automatic.
  std::int32_t fix_handle() const { return fix_handle_; }
  void set_fix_handle(std::int32_t handle) { fix_handle_ = handle; }
  /// How many entries could not be scanned, as the last overview of a batch scan counted them. Stands in no
  /// report.
  std::int64_t failed_items() const { return failed_items_; }
  void set_failed_items(std::int64_t count) { failed_items_ = count; }

  /// Asks the agent to start a scan. `ask` says whether the agent accepted it, and must not come back to the
  /// result document: what notifications do with it meanwhile waits for the answer, because they may overtake
  /// it. An accepted scan begins with an empty document, unless it goes on with one that the agent accepted
  /// and then called busy (noteBusy). One that is not accepted changes nothing. Main thread.
  void start(const std::function<bool()>& ask);
  /// The agent has refused the last start because a scan of that type exists. Before the bus state says so.
  void noteBusy();

  /// A copy of the result document of the running batch scan: "begintime", "endtime", "totalnum",
  /// "virusnum" and the array "virus".
  Json::Value result() const;
  /// Changes the result document under the lock; the change must not come back to this object.
  void updateResult(const std::function<void(Json::Value&)>& change);

  /// Everything as at the start of the process; for tests.
  void reset();

 private:
  mutable std::mutex starting_;  ///< held while the agent is asked; taken before mutex_
  bool accepted_ = false;        ///< the last start; guarded by starting_
  bool issuedAgain_ = false;     ///< the next start goes on with the document; guarded by starting_
  mutable std::mutex mutex_;     ///< guards the texts and the document
  std::string log_path_;
  std::string scan_path_;
  std::atomic<std::int32_t> batch_mode_{0};
  std::atomic<std::int32_t> fix_handle_{0};
  std::atomic<std::int64_t> failed_items_{0};
  Json::Value result_{Json::objectValue};
};
