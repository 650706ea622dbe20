#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

/// The state of the running scan, shared by the SCAN command, the program's start and the receivers of
/// notifications. A process has one such object. Any thread: the command runs on the main thread, the
/// receivers on the bus's delivery thread.
class ScanRunState {
 public:
  static ScanRunState& instance();

  ScanRunState() = default;
  ScanRunState(const ScanRunState&) = delete;
  ScanRunState& operator=(const ScanRunState&) = delete;

  /// The path of the batch report; bytes as typed.
  std::string log_path() const;
  void set_log_path(const std::string& path);
  /// The last path given after PATH; bytes as typed.
  std::string scan_path() const;
  void set_scan_path(const std::string& path);
  /// 1 from the first command of an unattended run to the end of the process.
  std::int32_t batch_mode() const { return batch_mode_; }
  void set_batch_mode() { batch_mode_ = 1; }
  /// json::toFixHandle of the agent's settings at the last start of an unattended run.
  std::int32_t fix_handle() const { return fix_handle_; }
  void set_fix_handle(std::int32_t handle) { fix_handle_ = handle; }
  /// The number of entries that could not be scanned, from the last overview. The report does not show the
  /// number.
  std::int64_t failed_items() const { return failed_items_; }
  void set_failed_items(std::int64_t count) { failed_items_ = count; }

  /// Asks the agent to start a scan. `ask` returns whether the agent accepted the scan, and must not use the
  /// result document. Notifications may overtake the answer, so result() and updateResult() wait for the
  /// answer. An accepted scan begins with an empty document, or keeps the document after noteBusy. A scan
  /// that is not accepted changes nothing. Main thread.
  void start(const std::function<bool()>& ask);
  /// Notes that the agent reported a scan of the same type. When the last start was accepted, the next start
  /// keeps the document. Call before the bus state changes.
  void noteBusy();

  /// A copy of the result document of the running batch scan: "begintime", "endtime", "totalnum",
  /// "virusnum" and the array "virus".
  Json::Value result() const;
  /// Changes the result document under the lock. The function must not use this object.
  void updateResult(const std::function<void(Json::Value&)>& change);

  /// Restores the state of the process's start; for tests.
  void reset();

 private:
  mutable std::mutex starting_;  ///< held during the question to the agent; locked before mutex_
  bool accepted_ = false;        ///< the agent accepted the last start; guarded by starting_
  bool issuedAgain_ = false;     ///< the next start keeps the document; guarded by starting_
  mutable std::mutex mutex_;     ///< guards the texts and the document
  std::string log_path_;
  std::string scan_path_;
  std::atomic<std::int32_t> batch_mode_{0};
  std::atomic<std::int32_t> fix_handle_{0};
  std::atomic<std::int64_t> failed_items_{0};
  Json::Value result_{Json::objectValue};
};
