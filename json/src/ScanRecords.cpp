#include "json/ScanRecords.h"

#include "RecordMembers.h"

namespace JsonReflect {

template <class Self, class Visitor>
void FileRiskMembers::members(Self& self, Visitor& visit) {
  visit("filesize_src", self.filesize_src);
  visit("file_trace_source", self.file_trace_source);
  visit("risk_name", self.risk_name);
  visit("engine_mark", self.engine_mark);
  visit("filemd5_src", self.filemd5_src);
  visit("file_create_time", self.file_create_time);
  visit("item", self.item);
  visit("filepath_src", self.filepath_src);
  visit("risk_id", self.risk_id);
  visit("find_time", self.find_time);
  visit("risk_type_name", self.risk_type_name);
  visit("file_modify_time", self.file_modify_time);
  visit("risk_type", self.risk_type);
  visit("finder", self.finder);
  visit("desc", self.desc);
}

template <class Self, class Visitor>
void VirusInfo::members(Self& self, Visitor& visit) {
  FileRiskMembers::members(self, visit);
  visit("filesha1_src", self.filesha1_src);
}

template <class Self, class Visitor>
void ScanBusOverView::members(Self& self, Visitor& visit) {
  visit("fixed_risk_count", self.fixed_risk_count);
  visit("checkout_risk_count", self.checkout_risk_count);
  visit("trusted_risk_count", self.trusted_risk_count);
  visit("total_item_count", self.total_item_count);
  visit("ignore_risk_count", self.ignore_risk_count);
  visit("checked_item_count", self.checked_item_count);
  visit("failed_item_count", self.failed_item_count);
  visit("cur_item", self.cur_item);
  visit("token_id", self.token_id);
  visit("disposed_risk_count", self.disposed_risk_count);
  visit("cost_time", self.cost_time);
}

template <class Self, class Visitor>
void RiskRepairResult::members(Self& self, Visitor& visit) {
  visit("handle_result", self.handle_result);
  visit("handle_detail", self.handle_detail);
  visit("handle_time", self.handle_time);
}

template <class Self, class Visitor>
void ProcRiskItem::members(Self& self, Visitor& visit) {
  visit("pid", self.pid);
  visit("risk_name", self.risk_name);
  visit("item", self.item);
  visit("risk_id", self.risk_id);
  visit("engine_type", self.engine_type);
  visit("find_time", self.find_time);
  visit("risk_type_name", self.risk_type_name);
  visit("risk_type", self.risk_type);
  visit("finder", self.finder);
  visit("desc", self.desc);
}

template <class Self, class Visitor>
void ProcessInfo::members(Self& self, Visitor& visit) {
  visit("exec_file_name", self.exec_file_name);
  visit("proc_name", self.proc_name);
  visit("pid", self.pid);
  visit("exec_file_exist", self.exec_file_exist);
  visit("proc_risks", self.proc_risks);
  visit("file_risks", self.file_risks);
  visit("user_name", self.user_name);
}

template <class Self, class Visitor>
void MemoryRiskInfo::members(Self& self, Visitor& visit) {
  visit("risk_type_name", self.risk_type_name);
  visit("risk_id", self.risk_id);
  visit("risk_type", self.risk_type);
  visit("process_info", self.process_info);
  visit("desc", self.desc);
}

template class Record<VirusInfo>;
template class Record<FileRiskInfo>;
template class Record<ScanBusOverView>;
template class Record<RiskRepairResult>;
template class Record<ProcRiskItem>;
template class Record<ProcessInfo>;
template class Record<MemoryRiskInfo>;

}  // namespace JsonReflect
