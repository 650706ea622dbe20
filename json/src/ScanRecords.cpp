#include "json/ScanRecords.h"

#include "RecordMembers.h"

namespace JsonReflect {

template <class Self, class Visitor>
void ScanParams::members(Self& self, Visitor& visit) {
  visit("follow_link", self.follow_link_);
  visit("max_scan_sec", self.max_scan_sec_);
  visit("uid", self.uid_);
  visit("custom_stop", self.custom_stop_);
  visit("items", self.items_);
  visit("force_scan", self.force_scan_);
  visit("handle_action", self.handle_action_);
  visit("fix_method", self.fix_method_);
  visit("handle_filter_types", self.handle_filter_types_);
  visit("parallelism", self.parallelism_);
  visit("proc_fix_method", self.proc_fix_method_);
  visit("expire_time", self.expire_time_);
  visit("scan_type", self.scan_type_);
}

void ScanParams::Serialize(Json::Value& out) const {
  const CReadLocker guard(lock_);
  Record::Serialize(out);
}

void ScanParams::Deserialize(const Json::Value& in) {
  const CWriteLocker guard(lock_);
  Record::Deserialize(in);
}

template class Record<ScanParams>;
template class Record<VirusInfo>;
template class Record<FileRiskInfo>;
template class Record<ScanBusOverView>;
template class Record<RiskRepairResult>;
template class Record<ProcRiskItem>;
template class Record<ProcessInfo>;
template class Record<MemoryRiskInfo>;

}  // namespace JsonReflect
