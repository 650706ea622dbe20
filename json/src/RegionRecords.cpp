#include "json/RegionRecords.h"

#include "RecordMembers.h"

namespace JsonReflect {

template <class Self, class Visitor>
void IsolationItem::members(Self& self, Visitor& visit) {
  visit("filemd5_repaired", self.filemd5_repaired);
  visit("uid", self.uid);
  visit("filetype_src", self.filetype_src);
  visit("isolate_time", self.isolate_time);
  visit("uuid", self.uuid);
  visit("filemd5_src", self.filemd5_src);
  visit("risk_type_name", self.risk_type_name);
  visit("gid", self.gid);
  visit("mode", self.mode);
  visit("filepath_src", self.filepath_src);
  visit("size", self.size);
  visit("risk_type", self.risk_type);
  visit("engine_type", self.engine_type);
  visit("virus_name", self.virus_name);
}

template <class Self, class Visitor>
void DeIsolateParams::members(Self& self, Visitor& visit) {
  visit("action", self.action);
  visit("item_number", self.item_number);
  visit("is_all", self.is_all);
  visit("custom_path", self.custom_path);
  visit("items", self.items);
}

template <class Self, class Visitor>
void FilterRegionItem::members(Self& self, Visitor& visit) {
  visit("valid_statue", self.valid_statue);
  visit("domain", self.domain);
  visit("uuid", self.uuid);
  visit("item_type", self.item_type);
  visit("exist_state", self.exist_state);
  visit("item", self.item);
  visit("modify_time", self.modify_time);
  visit("file_size", self.file_size);
  visit("md5", self.md5);
  visit("add_time", self.add_time);
}

template class Record<IsolationItem>;
template class Record<DeIsolateParams>;
template class Record<FilterRegionItem>;

}  // namespace JsonReflect
