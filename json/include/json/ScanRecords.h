#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Members.h"
#include "json/Record.h"
#include "platform/Locks.h"

/// The records of a scan: the request, and the reports of the running scan. Paths have the wire form
/// (json::encodePath). Times are seconds since 1970-01-01. Not thread-safe, except for
/// ScanParams.
namespace JsonReflect {

/// "params" of startScanTask. Any thread, except for changes of the list that items() returns.
class ScanParams : public Record<ScanParams> {
 public:
  void Serialize(Json::Value& out) const override;
  void Deserialize(const Json::Value& in) override;

  void set_follow_link(bool value) { set(follow_link_, value); }
  void set_uid(int value) { set(uid_, value); }
  void set_custom_stop(bool value) { set(custom_stop_, value); }
  void set_force_scan(bool value) { set(force_scan_, value); }
  void set_handle_action(int value) { set(handle_action_, value); }
  void set_fix_method(int value) { set(fix_method_, value); }
  void set_scan_type(int value) { set(scan_type_, value); }
  std::vector<std::string>& items() { return items_; }  ///< for appending; paths

  bool follow_link() const { return get(follow_link_); }
  int max_scan_sec() const { return get(max_scan_sec_); }
  int uid() const { return get(uid_); }  ///< the user who asks, as the request claims
  bool custom_stop() const { return get(custom_stop_); }
  const std::vector<std::string>& items() const { return items_; }
  bool force_scan() const { return get(force_scan_); }
  int handle_action() const { return get(handle_action_); }
  int fix_method() const { return get(fix_method_); }  ///< see json::toFixMethod
  std::vector<std::string> handle_filter_types() const { return get(handle_filter_types_); }
  int parallelism() const { return get(parallelism_); }
  int proc_fix_method() const { return get(proc_fix_method_); }
  int expire_time() const { return get(expire_time_); }
  int scan_type() const { return get(scan_type_); }  ///< see json::toScanType

  template <class Self, class Visitor>
  static void members(Self& self, Visitor& visit);

 private:
  template <class T>
  void set(T& member, T value) {
    const CWriteLocker guard(lock_);
    member = value;
    loaded_ = true;
  }
  template <class T>
  T get(const T& member) const {
    const CReadLocker guard(lock_);
    return member;
  }

  mutable CRwLock lock_;
  bool follow_link_ = false;
  std::int32_t max_scan_sec_ = 0;
  std::int32_t uid_ = 0;
  bool custom_stop_ = false;
  std::vector<std::string> items_;
  bool force_scan_ = false;
  std::int32_t handle_action_ = 0;
  std::int32_t fix_method_ = 0;
  std::vector<std::string> handle_filter_types_;
  std::int32_t parallelism_ = 0;
  std::int32_t proc_fix_method_ = 0;
  std::int32_t expire_time_ = 0;
  std::int32_t scan_type_ = 0;
};

/// The members of every record of a file risk.
struct FileRiskMembers {
  std::int32_t filesize_src = 0;  ///< bytes
  std::int32_t file_trace_source = 0;
  std::string risk_name;         ///< name of the detection
  std::int32_t engine_mark = 0;  ///< json::Engine::code
  std::string filemd5_src;
  std::int64_t file_create_time = 0;
  std::string item;          ///< a path: the scanned item
  std::string filepath_src;  ///< a path: the file
  std::string risk_id;
  std::int64_t find_time = 0;
  std::string risk_type_name;
  std::int64_t file_modify_time = 0;
  std::int32_t risk_type = 0;
  std::int32_t finder = 0;  ///< json::Finder
  std::string desc;

  JSON_MEMBERS(filesize_src, file_trace_source, risk_name, engine_mark, filemd5_src, file_create_time, item,
               filepath_src, risk_id, find_time, risk_type_name, file_modify_time, risk_type, finder, desc);
};

/// A file risk in reportRiskInfo and reportRiskFixInfo.
class VirusInfo : public Record<VirusInfo>, public FileRiskMembers {
 public:
  std::string filesha1_src;

  static void members(auto& self, auto& visit) {
    FileRiskMembers::members(self, visit);
    visit("filesha1_src", self.filesha1_src);
  }
};

/// A file risk in the record of a process: without the SHA-1.
class FileRiskInfo : public Record<FileRiskInfo>, public FileRiskMembers {
 public:
  using FileRiskMembers::members;
};

/// Counters of a running task.
class ScanBusOverView : public Record<ScanBusOverView> {
 public:
  std::int64_t fixed_risk_count = 0;
  std::int64_t checkout_risk_count = 0;
  std::int64_t trusted_risk_count = 0;
  std::int64_t total_item_count = 0;  ///< all encountered entries
  std::int64_t ignore_risk_count = 0;
  std::int64_t checked_item_count = 0;  ///< clean and infected
  std::int64_t failed_item_count = 0;   ///< errors
  std::string cur_item;                 ///< a path
  std::string token_id;
  std::int64_t disposed_risk_count = 0;
  std::int64_t cost_time = 0;  ///< seconds

  JSON_MEMBERS(fixed_risk_count, checkout_risk_count, trusted_risk_count, total_item_count, ignore_risk_count,
               checked_item_count, failed_item_count, cur_item, token_id, disposed_risk_count, cost_time);
};

/// The outcome of handling a risk.
class RiskRepairResult : public Record<RiskRepairResult> {
 public:
  std::int32_t handle_result = 0;  ///< json::HandleResult
  std::string handle_detail;
  std::int64_t handle_time = 0;

  JSON_MEMBERS(handle_result, handle_detail, handle_time);
};

/// One finding in a process.
class ProcRiskItem : public Record<ProcRiskItem> {
 public:
  std::int32_t pid = 0;
  std::string risk_name;
  std::string item;  ///< a path
  std::string risk_id;
  std::int32_t engine_type = 0;  ///< json::Engine::code
  std::int64_t find_time = 0;
  std::string risk_type_name;
  std::int32_t risk_type = 0;
  std::int32_t finder = 0;
  std::string desc;

  JSON_MEMBERS(pid, risk_name, item, risk_id, engine_type, find_time, risk_type_name, risk_type, finder,
               desc);
};

class ProcessInfo : public Record<ProcessInfo> {
 public:
  std::string exec_file_name;  ///< a path
  std::string proc_name;
  std::int32_t pid = 0;
  bool exec_file_exist = false;
  std::vector<ProcRiskItem> proc_risks;
  std::vector<FileRiskInfo> file_risks;
  std::string user_name;

  JSON_MEMBERS(exec_file_name, proc_name, pid, exec_file_exist, proc_risks, file_risks, user_name);
};

/// A process risk in reportRiskInfo and reportRiskFixInfo.
class MemoryRiskInfo : public Record<MemoryRiskInfo> {
 public:
  std::string risk_type_name;
  std::string risk_id;
  std::int32_t risk_type = 0;
  ProcessInfo process_info;
  std::string desc;

  JSON_MEMBERS(risk_type_name, risk_id, risk_type, process_info, desc);
};

}  // namespace JsonReflect
