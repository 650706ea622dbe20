#include "RecordTables.h"

#include <functional>
#include <random>
#include <stdexcept>

#include "json/RegionRecords.h"
#include "json/ScanRecords.h"
#include "support/Golden.h"

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

/// The words of the golden file for the kinds.
constexpr std::pair<const char*, Kind> kKinds[] = {
    {"bool", Kind::kBool},
    {"int", Kind::kInt},
    {"int64", Kind::kInt64},
    {"string", Kind::kString},
    {"list of strings", Kind::kStringList},
    {"list of ProcRiskItem", Kind::kProcRisks},
    {"list of FileRiskInfo", Kind::kFileRisks},
    {"ProcessInfo", Kind::kProcess},
};

constexpr std::pair<const char*, RecordTable::Make> kRecords[] = {
    {"ScanParams", make<JsonReflect::ScanParams>},
    {"VirusInfo", make<JsonReflect::VirusInfo>},
    {"FileRiskInfo", make<JsonReflect::FileRiskInfo>},
    {"ScanBusOverView", make<JsonReflect::ScanBusOverView>},
    {"RiskRepairResult", make<JsonReflect::RiskRepairResult>},
    {"ProcRiskItem", make<JsonReflect::ProcRiskItem>},
    {"ProcessInfo", make<JsonReflect::ProcessInfo>},
    {"MemoryRiskInfo", make<JsonReflect::MemoryRiskInfo>},
    {"IsolationItem", make<JsonReflect::IsolationItem>},
    {"DeIsolateParams", make<JsonReflect::DeIsolateParams>},
    {"FilterRegionItem", make<JsonReflect::FilterRegionItem>},
};

std::vector<RecordTable> readTables() {
  std::vector<RecordTable> tables;
  for (const auto& [name, make] : kRecords) {
    tables.push_back({name, make, {}});
  }
  // A line of the golden file: "record | member | kind".
  for (const std::vector<std::string>& row : testsupport::goldenFields("json/data/record_members.txt")) {
    for (RecordTable& table : tables) {
      for (const auto& [word, kind] : kKinds) {
        if (table.name == row.at(0) && word == row.at(2)) {
          table.members.push_back({row.at(1), kind});
        }
      }
    }
  }
  return tables;
}

}  // namespace

const std::vector<RecordTable>& recordTables() {
  static const std::vector<RecordTable> kTables = readTables();
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
