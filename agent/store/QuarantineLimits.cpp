#include <limits>

#include "json/CppJson.h"
#include "store/Quarantine.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

constexpr std::uint64_t kGigabyte = 1U << 30;
constexpr std::int64_t kDay = 86400;

struct CleanRule {
  bool on = false;
  json::CleanType type = json::CleanType::kByAge;
  std::int64_t ageSec = 0;
  std::uint64_t freePercent = 0;
};

std::int64_t secondsOf(json::CleanUnit unit) {
  switch (unit) {
    case json::CleanUnit::kYear:
      return 365 * kDay;
    case json::CleanUnit::kMonth:
      return 30 * kDay;
    case json::CleanUnit::kWeek:
      return 7 * kDay;
    default:
      return kDay;
  }
}

CleanRule readRule(const Json::Value& document) {
  const Json::Value& section = document["AutoClean"];
  const auto type = json::fromNumber<json::CleanType>(CppJson::readInt(section, "CleanType", -1));
  const auto unit = json::fromNumber<json::CleanUnit>(CppJson::readInt(section, "CleanUnit", -1));
  return {
      .on = CppJson::readBool(section, "Flag", false),
      .type = type.value_or(json::CleanType::kByAge),
      .ageSec = CppJson::readInt64(section, "CleanTime", 0) * secondsOf(unit.value_or(json::CleanUnit::kDay)),
      .freePercent = static_cast<std::uint64_t>(CppJson::readInt64(section, "CleanRate", 0))};
}

}  // namespace

std::uint64_t Quarantine::limitBytes() const {
  const Json::Value document = settings_.document(json::ConfigType::kQuarantine);
  const std::int64_t gigabytes = CppJson::readInt64(document["Common"], "SizeLimit", 0);
  return gigabytes <= 0 ? std::numeric_limits<std::uint64_t>::max()
                        : static_cast<std::uint64_t>(gigabytes) * kGigabyte;
}

void Quarantine::reserve(std::uint64_t bytes) {
  const std::uint64_t before = usedBytes_.fetch_add(bytes);
  const std::uint64_t limit = limitBytes();
  if (before > limit || bytes > limit - before) {
    usedBytes_ -= bytes;
    throw StoreError("the quarantine is full: its limit would be passed");
  }
}

void Quarantine::cleanWhenFull() {
  const std::uint64_t limit = limitBytes();
  const CleanRule rule = readRule(settings_.document(json::ConfigType::kQuarantine));
  if (!rule.on || limit == std::numeric_limits<std::uint64_t>::max() || usedBytes_ / 9 < limit / 10) {
    return;
  }
  const std::lock_guard lock(items_);
  const std::uint64_t goal = limit / 100 * (100 - rule.freePercent);
  const std::int64_t oldest = platform::nowSec() - rule.ageSec;
  for (const ItemTable::Aged& item : table_.byAge()) {
    const bool goes = rule.type == json::CleanType::kByAge ? item.isolateTimeSec < oldest : usedBytes_ > goal;
    if (!goes) {
      break;
    }
    erase(item.uuid, item.storedBytes);
    audit_.add({}, "clean quarantine", item.uuid, "deleted: the quarantine is nearly full");
  }
}

void Quarantine::erase(const std::string& uuid, std::uint64_t storedBytes) {
  if (vault_.isWhole(uuid)) {
    vault_.markGone(uuid);
    reached("marked gone");
  }
  table_.erase(uuid);
  reached("row erased");
  vault_.discardGone(uuid);
  vault_.discardPart(uuid);
  usedBytes_ -= storedBytes;
}

}  // namespace agent::store
