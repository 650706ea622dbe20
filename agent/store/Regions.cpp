#include "store/Regions.h"

#include <sys/stat.h>
#include <unistd.h>

#include "engine/Digest.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace agent::store {
namespace {

/// The most that one change reads of the named files, for the MD5 that a list shows.
constexpr std::int64_t kHashBudgetBytes = 64 << 20;

std::optional<std::int64_t> wholeNumber(const Json::Value& object, const char* key) {
  const Json::Value& value = object[key];
  // The type, not isInt64() alone: isInt64() accepts 1.0 as well.
  const bool whole = value.type() == Json::intValue || value.type() == Json::uintValue;
  return whole && value.isInt64() ? std::optional(value.asInt64()) : std::nullopt;
}

template <class E>
std::optional<E> readValue(const Json::Value& object, const char* key) {
  const std::optional<std::int64_t> number = wholeNumber(object, key);
  return number ? json::fromNumber<E>(*number) : std::nullopt;
}

std::int32_t validState(std::int64_t validUntil, std::int64_t now) {
  using enum json::RegionValidity;
  return json::toNumber(validUntil == 0 ? kForEver : validUntil > now ? kValid : kExpired);
}

}  // namespace

Regions::Regions(Database& database) : database_(database) {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_, "SELECT region,type,domain,item,valid_until FROM regions");
  while (rows.step()) {
    const auto region = json::fromNumber<json::Region>(rows.number(0));
    const auto type = json::fromNumber<RegionItemType>(rows.number(1));
    const auto domain = json::fromNumber<json::RegionDomain>(rows.number(2));
    if (!region || !type || !domain || *domain == json::RegionDomain::kEvery) {
      throw StoreError(platform::quoted(database_.path()) + " is damaged: a region entry of an unknown kind");
    }
    index_.put(*region, *type, *domain, rows.text(3), rows.number(4));
  }
  hashesNeeded_ = index_.holdsHashes();
  generation_ = static_cast<std::uint64_t>(
      database_.number("SELECT value FROM counters WHERE name='region_generation'"));
}

platform::Expected<std::vector<std::string>> Regions::readItems(RegionItemType type,
                                                                const Json::Value& items) {
  if (!items.isArray()) {
    return platform::failure("\"items\" must be a list");
  }
  std::vector<std::string> entries;
  for (const Json::Value& element : items) {
    if (!element.isString()) {
      return platform::failure("\"items\" must be a list of texts");
    }
    auto entry = normaliseRegionItem(type, json::decodePath(element.asString()));
    if (!entry) {
      return platform::failure(std::move(entry.error()));
    }
    entries.push_back(std::move(*entry));
  }
  return entries;
}

platform::Expected<Regions::Change> Regions::readChange(json::Region region, const Json::Value& items) {
  if (!items.isObject()) {
    return platform::failure("the change must be an object");
  }
  const auto action = readValue<json::RegionAction>(items, "action");
  if (!action) {
    return platform::failure("\"action\" must be 0 (add) or 1 (delete)");
  }
  const auto type = readValue<RegionItemType>(items, "type");
  if (!type) {
    return platform::failure("\"type\" must be 0 to 6");
  }
  const auto domain = readValue<json::RegionDomain>(items, "domain");
  if (!domain || *domain == json::RegionDomain::kEvery) {
    return platform::failure("\"domain\" must be 0 (personal) or 1 (global)");
  }
  if (items.isMember("valid_until") && wholeNumber(items, "valid_until").value_or(-1) < 0) {
    return platform::failure("\"valid_until\" must be a time in seconds, or 0");
  }
  if (items.isMember("is_all") && !items["is_all"].isBool()) {
    return platform::failure("\"is_all\" must be true or false");
  }
  Change change{.region = region,
                .domain = *domain,
                .type = *type,
                .add = *action == json::RegionAction::kAdd,
                .all = CppJson::readBool(items, "is_all", false),
                .validUntil = CppJson::readInt64(items, "valid_until", 0),
                .items = {}};
  if (change.all) {
    return change.add ? platform::Expected<Change>(platform::failure("\"is_all\" goes with deleting only"))
                      : change;
  }
  return readItems(*type, items["items"]).map([&change](std::vector<std::string>&& entries) {
    change.items = std::move(entries);
    return change;
  });
}

platform::Expected<void> Regions::change(json::Region region, const Json::Value& items,
                                         const CallerId& caller) {
  try {
    const auto change = readChange(region, items);
    if (!change) {
      return platform::failure(change.error());
    }
    if (change->items.size() > static_cast<std::size_t>(kMostEntries)) {
      return platform::failure("one change has at most " + std::to_string(kMostEntries) + " entries");
    }
    if (change->all || !change->items.empty()) {
      store(*change, factsOf(*change), caller.uid);
    }
    return {};
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

/// Throws StoreError when there are too many rows.
void Regions::checkNumber() const {
  if (database_.number("SELECT count(*) FROM regions") > kMostEntries) {
    throw StoreError("the trust and reject lists would have more than " + std::to_string(kMostEntries) +
                     " entries");
  }
}

Regions::Facts Regions::factsOf(RegionItemType type, const std::string& item, std::int64_t* budget) {
  Facts facts;
  if (type == RegionItemType::kMd5) {
    facts.md5 = item;
  }
  struct stat st {};
  const bool isPath = type == RegionItemType::kFile || type == RegionItemType::kFolder;
  facts.existed = isPath && ::lstat(item.c_str(), &st) == 0;
  if (type != RegionItemType::kFile) {
    return facts;
  }
  const platform::Descriptor fd = platform::openRegular(item, &st);
  if (!fd) {
    return facts;
  }
  facts.size = st.st_size;
  if (st.st_size > *budget) {
    return facts;
  }
  *budget -= st.st_size;
  facts.md5 = digestOfFile(fd.get(), Digest::Kind::kMd5).value_or("");
  return facts;
}

// Opens files: never with a lock, or inside a transaction.
std::vector<Regions::Facts> Regions::factsOf(const Change& change) {
  std::vector<Facts> facts;
  std::int64_t budget = kHashBudgetBytes;
  for (std::size_t i = 0; change.add && i < change.items.size(); ++i) {
    facts.push_back(factsOf(change.type, change.items[i], &budget));
  }
  return facts;
}

void Regions::store(const Change& change, const std::vector<Facts>& facts, uid_t caller) {
  // Held for both changes: the index changes in the order of the rows.
  const std::lock_guard lock(database_.mutex());
  Transaction transaction(database_);
  if (change.add) {
    addRows(change, facts, caller);
    checkNumber();
  } else {
    deleteRows(change);
  }
  const std::uint64_t next = generation_ + 1;
  Statement(database_, "INSERT OR REPLACE INTO counters VALUES ('region_generation',?)").bind(next).run();
  transaction.commit();
  const std::unique_lock writing(mutex_);
  updateIndex(change);
  hashesNeeded_ = index_.holdsHashes();
  generation_ = next;
}

void Regions::addRows(const Change& change, const std::vector<Facts>& facts, uid_t caller) {
  Statement insert(
      database_,
      "INSERT INTO regions"
      " (region,type,domain,item,uuid,add_time,modify_time,valid_until,file_size,md5,added_by,"
      "existed) VALUES (?1,?2,?3,?4,?5,?6,?6,?7,?8,?9,?10,?11)"
      " ON CONFLICT DO UPDATE SET modify_time=?6,valid_until=?7,file_size=?8,md5=?9,existed=?11");
  for (std::size_t i = 0; i < change.items.size(); ++i) {
    const Facts& known = facts[i];
    insert
        .bind(json::toNumber(change.region), json::toNumber(change.type), json::toNumber(change.domain),
              change.items[i], CUuid::generate(), platform::nowSec(), change.validUntil, known.size,
              known.md5, caller, known.existed ? 1 : 0)
        .run();
  }
}

void Regions::deleteRows(const Change& change) {
  if (change.all) {
    Statement(database_, "DELETE FROM regions WHERE region=? AND type=? AND domain=?")
        .bind(json::toNumber(change.region), json::toNumber(change.type), json::toNumber(change.domain))
        .run();
    return;
  }
  Statement remove(database_, "DELETE FROM regions WHERE region=? AND type=? AND domain=? AND item=?");
  for (const std::string& item : change.items) {
    remove
        .bind(json::toNumber(change.region), json::toNumber(change.type), json::toNumber(change.domain), item)
        .run();
  }
}

void Regions::updateIndex(const Change& change) {
  if (change.all) {
    index_.eraseAll(change.region, change.type, change.domain);
  }
  for (const std::string& item : change.items) {
    if (change.add) {
      index_.put(change.region, change.type, change.domain, item, change.validUntil);
    } else {
      index_.erase(change.region, change.type, change.domain, item);
    }
  }
}

Json::Value Regions::list(json::RegionDomain domain, json::RegionItemType itemType, json::Region region,
                          bool withFacts) const {
  Json::Value entries(Json::arrayValue);
  const std::int64_t now = platform::nowSec();
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_,
                 "SELECT domain,uuid,item,modify_time,file_size,md5,add_time,valid_until,existed FROM regions"
                 " WHERE region=?1 AND type=?2 AND (domain=?3 OR ?3=?4) ORDER BY id");
  rows.bind(json::toNumber(region), json::toNumber(itemType), json::toNumber(domain),
            json::toNumber(json::RegionDomain::kEvery));
  while (rows.step()) {
    JsonReflect::FilterRegionItem entry;
    const std::string item = rows.text(2);
    entry.domain = static_cast<std::int32_t>(rows.number(0));
    entry.uuid = rows.text(1);
    entry.item_type = json::toNumber(itemType);
    entry.item = json::encodePath(item);
    entry.modify_time = rows.number(3);
    entry.file_size = withFacts ? rows.number(4) : 0;
    entry.md5 = withFacts || itemType == RegionItemType::kMd5 ? rows.text(5) : "";
    entry.add_time = rows.number(6);
    entry.valid_statue = validState(rows.number(7), now);
    entry.exist_state = withFacts && rows.number(8) != 0 ? 1 : 0;
    Json::Value value;
    entry.ToValue(value);
    entries.append(std::move(value));
  }
  return entries;
}

RegionVerdict Regions::byPath(const std::string& path) const {
  const std::string normal = utils::FormatFilePath(path);
  const std::shared_lock lock(mutex_);
  return index_.byPath(normal, platform::nowSec());
}

RegionVerdict Regions::byHash(const Verdict& hashes) const {
  const std::shared_lock lock(mutex_);
  return index_.byHash(hashes, platform::nowSec());
}

}  // namespace agent::store
