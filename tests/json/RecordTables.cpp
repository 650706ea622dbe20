#include "RecordTables.h"

#include <functional>
#include <random>
#include <stdexcept>

#include "json/RegionRecords.h"
#include "json/ScanRecords.h"

namespace jsontest {
namespace {

template <class R>
std::unique_ptr<JsonSerializerObject> make() {
  return std::make_unique<R>();
}

std::string sampleText(std::mt19937& random) {
  static const std::vector<std::string> kPieces = {"a",  "Z",  " ",    "\"", "\\",           "/", "\n", "\t",
                                                   "文", "件", "\x7f", "😀",  "\xef\x9e\x80", "0"};
  std::string text = "s";
  for (auto i = random() % 12; i > 0; --i) {
    text += kPieces[random() % kPieces.size()];
  }
  return text;
}

Json::Value sampleList(std::mt19937& random, const std::function<Json::Value()>& element) {
  Json::Value list(Json::arrayValue);
  for (auto i = 1 + random() % 4; i > 0; --i) {
    list.append(element());
  }
  return list;
}

}  // namespace

const std::vector<RecordTable>& recordTables() {
  static const std::vector<RecordTable> kTables = {
      {"ScanParams",
       make<JsonReflect::ScanParams>,
       {{"follow_link", Kind::kBool},
        {"max_scan_sec", Kind::kInt},
        {"uid", Kind::kInt},
        {"custom_stop", Kind::kBool},
        {"items", Kind::kStringList},
        {"force_scan", Kind::kBool},
        {"handle_action", Kind::kInt},
        {"fix_method", Kind::kInt},
        {"handle_filter_types", Kind::kStringList},
        {"parallelism", Kind::kInt},
        {"proc_fix_method", Kind::kInt},
        {"expire_time", Kind::kInt},
        {"scan_type", Kind::kInt}}},
      {"VirusInfo",
       make<JsonReflect::VirusInfo>,
       {{"filesize_src", Kind::kInt},
        {"filesha1_src", Kind::kString},
        {"file_trace_source", Kind::kInt},
        {"risk_name", Kind::kString},
        {"engine_mark", Kind::kInt},
        {"filemd5_src", Kind::kString},
        {"file_create_time", Kind::kInt64},
        {"item", Kind::kString},
        {"filepath_src", Kind::kString},
        {"risk_id", Kind::kString},
        {"find_time", Kind::kInt64},
        {"risk_type_name", Kind::kString},
        {"file_modify_time", Kind::kInt64},
        {"risk_type", Kind::kInt},
        {"finder", Kind::kInt},
        {"desc", Kind::kString}}},
      {"FileRiskInfo",
       make<JsonReflect::FileRiskInfo>,
       {{"filesize_src", Kind::kInt},
        {"file_trace_source", Kind::kInt},
        {"risk_name", Kind::kString},
        {"engine_mark", Kind::kInt},
        {"filemd5_src", Kind::kString},
        {"file_create_time", Kind::kInt64},
        {"item", Kind::kString},
        {"filepath_src", Kind::kString},
        {"risk_id", Kind::kString},
        {"find_time", Kind::kInt64},
        {"risk_type_name", Kind::kString},
        {"file_modify_time", Kind::kInt64},
        {"risk_type", Kind::kInt},
        {"finder", Kind::kInt},
        {"desc", Kind::kString}}},
      {"ScanBusOverView",
       make<JsonReflect::ScanBusOverView>,
       {{"fixed_risk_count", Kind::kInt64},
        {"checkout_risk_count", Kind::kInt64},
        {"trusted_risk_count", Kind::kInt64},
        {"total_item_count", Kind::kInt64},
        {"ignore_risk_count", Kind::kInt64},
        {"checked_item_count", Kind::kInt64},
        {"failed_item_count", Kind::kInt64},
        {"cur_item", Kind::kString},
        {"token_id", Kind::kString},
        {"disposed_risk_count", Kind::kInt64},
        {"cost_time", Kind::kInt64}}},
      {"RiskRepairResult",
       make<JsonReflect::RiskRepairResult>,
       {{"handle_result", Kind::kInt}, {"handle_detail", Kind::kString}, {"handle_time", Kind::kInt64}}},
      {"ProcRiskItem",
       make<JsonReflect::ProcRiskItem>,
       {{"pid", Kind::kInt},
        {"risk_name", Kind::kString},
        {"item", Kind::kString},
        {"risk_id", Kind::kString},
        {"engine_type", Kind::kInt},
        {"find_time", Kind::kInt64},
        {"risk_type_name", Kind::kString},
        {"risk_type", Kind::kInt},
        {"finder", Kind::kInt},
        {"desc", Kind::kString}}},
      {"ProcessInfo",
       make<JsonReflect::ProcessInfo>,
       {{"exec_file_name", Kind::kString},
        {"proc_name", Kind::kString},
        {"pid", Kind::kInt},
        {"exec_file_exist", Kind::kBool},
        {"proc_risks", Kind::kProcRisks},
        {"file_risks", Kind::kFileRisks},
        {"user_name", Kind::kString}}},
      {"MemoryRiskInfo",
       make<JsonReflect::MemoryRiskInfo>,
       {{"risk_type_name", Kind::kString},
        {"risk_id", Kind::kString},
        {"risk_type", Kind::kInt},
        {"process_info", Kind::kProcess},
        {"desc", Kind::kString}}},
      {"IsolationItem",
       make<JsonReflect::IsolationItem>,
       {{"filemd5_repaired", Kind::kString},
        {"uid", Kind::kInt},
        {"filetype_src", Kind::kString},
        {"isolate_time", Kind::kInt64},
        {"uuid", Kind::kString},
        {"filemd5_src", Kind::kString},
        {"risk_type_name", Kind::kString},
        {"gid", Kind::kInt},
        {"mode", Kind::kInt},
        {"filepath_src", Kind::kString},
        {"size", Kind::kInt64},
        {"risk_type", Kind::kInt},
        {"engine_type", Kind::kInt},
        {"virus_name", Kind::kString}}},
      {"DeIsolateParams",
       make<JsonReflect::DeIsolateParams>,
       {{"action", Kind::kInt},
        {"item_number", Kind::kInt},
        {"is_all", Kind::kBool},
        {"custom_path", Kind::kString},
        {"items", Kind::kStringList}}},
      {"FilterRegionItem",
       make<JsonReflect::FilterRegionItem>,
       {{"valid_statue", Kind::kInt},
        {"domain", Kind::kInt},
        {"uuid", Kind::kString},
        {"item_type", Kind::kInt},
        {"exist_state", Kind::kInt},
        {"item", Kind::kString},
        {"modify_time", Kind::kInt64},
        {"file_size", Kind::kInt64},
        {"md5", Kind::kString},
        {"add_time", Kind::kInt64}}},
  };
  return kTables;
}

const RecordTable& recordTable(const std::string& name) {
  for (const RecordTable& table : recordTables()) {
    if (table.name == name) {
      return table;
    }
  }
  throw std::invalid_argument(name);
}

Json::Value sampleOf(Kind kind, unsigned seed) {
  std::mt19937 random(seed);
  switch (kind) {
    case Kind::kBool:
      return true;
    case Kind::kInt:
      return Json::Int(static_cast<std::int32_t>(static_cast<std::uint32_t>(random() | 1u)));
    case Kind::kInt64:
      return Json::Int64(static_cast<std::int64_t>((std::uint64_t{random()} << 32) | random() | 1u));
    case Kind::kString:
      return sampleText(random);
    case Kind::kStringList:
      return sampleList(random, [&] { return Json::Value(sampleText(random)); });
    case Kind::kProcRisks:
      return sampleList(random,
                        [&] { return sampleRecord(recordTable("ProcRiskItem"), unsigned(random())); });
    case Kind::kFileRisks:
      return sampleList(random,
                        [&] { return sampleRecord(recordTable("FileRiskInfo"), unsigned(random())); });
    case Kind::kProcess:
      return sampleRecord(recordTable("ProcessInfo"), seed);
  }
  throw std::invalid_argument("kind");
}

Json::Value sampleRecord(const RecordTable& table, unsigned seed) {
  Json::Value object(Json::objectValue);
  for (const Member& member : table.members) {
    object[member.key] = sampleOf(member.kind, seed++);
  }
  return object;
}

Json::Value initialOf(Kind kind) {
  switch (kind) {
    case Kind::kBool:
      return false;
    case Kind::kInt:
    case Kind::kInt64:
      return 0;
    case Kind::kString:
      return "";
    case Kind::kStringList:
    case Kind::kProcRisks:
    case Kind::kFileRisks:
      return Json::Value(Json::arrayValue);
    case Kind::kProcess:
      break;
  }
  Json::Value object(Json::objectValue);
  for (const Member& member : recordTable("ProcessInfo").members) {
    object[member.key] = initialOf(member.kind);
  }
  return object;
}

}  // namespace jsontest
