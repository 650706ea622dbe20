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
  int type = 0;  ///< 0 by age, 1 down to a rate
  std::int64_t ageSec = 0;
  std::uint64_t freePercent = 0;
};

CleanRule readRule(const Json::Value& document) {
  static constexpr std::int64_t kUnits[] = {365 * kDay, 30 * kDay, kDay, 7 * kDay};
  const Json::Value& section = document["AutoClean"];
  const int unit = CppJson::readInt(section, "CleanUnit", 2);
  return {.on = CppJson::readBool(section, "Flag", false),
          .type = CppJson::readInt(section, "CleanType", 0),
          .ageSec = CppJson::readInt64(section, "CleanTime", 0) * kUnits[unit & 3],
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
    const bool goes = rule.type == 0 ? item.isolateTimeSec < oldest : usedBytes_ > goal;
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
