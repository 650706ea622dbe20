// Any text as a record: a record that was read is the same after writing and reading. Any bytes as a path:
// decoding gives the same bytes, and the encoded path is UTF-8.
#include <utf8proc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/ScanRecords.h"

namespace {

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

template <class R>
std::unique_ptr<JsonSerializerObject> make() {
  return std::make_unique<R>();
}

using namespace JsonReflect;
constexpr std::unique_ptr<JsonSerializerObject> (*kRecords[])() = {
    make<ScanParams>,    make<VirusInfo>,       make<FileRiskInfo>,    make<ScanBusOverView>,
    make<ProcRiskItem>,  make<ProcessInfo>,     make<MemoryRiskInfo>,  make<RiskRepairResult>,
    make<IsolationItem>, make<DeIsolateParams>, make<FilterRegionItem>};

Json::Value valueOf(const JsonSerializerObject& record) {
  Json::Value value;
  require(record.ToValue(value));
  return value;
}

void readAsRecord(const std::string& text, std::size_t which) {
  const auto record = kRecords[which % std::size(kRecords)]();
  if (!record->FromString(text)) {
    require(!record->loaded());
    return;
  }
  for (const int style : {0, 1}) {
    std::string written;
    require(record->ToString(written, style));
    const auto again = kRecords[which % std::size(kRecords)]();
    require(again->FromString(written));
    // The first writing replaces broken UTF-8. Later writings change nothing.
    std::string rewritten;
    require(again->ToString(rewritten, style) && rewritten == written);
    require(valueOf(*again).size() == valueOf(*record).size());
  }
}

void readAsPath(const std::string& bytes) {
  const std::string wire = json::encodePath(bytes);
  require(json::decodePath(wire) == bytes);
  json::decodePath(bytes);
  for (const std::string& text : {wire, json::visiblePath(wire), json::visiblePath(bytes)}) {
    utf8proc_int32_t character = 0;
    for (std::size_t i = 0; i < text.size();) {
      const utf8proc_ssize_t length =
          utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                           static_cast<utf8proc_ssize_t>(text.size() - i), &character);
      require(length > 0);
      i += static_cast<std::size_t>(length);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  readAsRecord(text, data[0]);
  readAsPath(text);
  Json::Value value;
  if (CppJson::LoadJsonString(text, value)) {
    CppJson::toInt(value, 0);
    CppJson::toInt64(value, 0);
    CppJson::readString(value, "items", "");
  }
  return 0;
}
