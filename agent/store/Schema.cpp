#include "store/Schema.h"

#include <array>
#include <string>

#include "platform/Posix.h"

namespace agent::store {
namespace {

// Texts are bytes (BLOB): paths need not be UTF-8.
constexpr std::array kStoreSteps = {
    "CREATE TABLE settings ("
    "  config_type INTEGER PRIMARY KEY,"
    "  document BLOB NOT NULL);"  // JSON, whole
    "CREATE TABLE counters ("
    "  name TEXT PRIMARY KEY,"
    "  value INTEGER NOT NULL);"
    "CREATE TABLE regions ("
    "  id INTEGER PRIMARY KEY,"
    "  region INTEGER NOT NULL,"  // 0 trust, 1 reject
    "  type INTEGER NOT NULL,"
    "  domain INTEGER NOT NULL,"
    "  item BLOB NOT NULL,"  // normalised
    "  uuid BLOB NOT NULL,"
    "  add_time INTEGER NOT NULL,"
    "  modify_time INTEGER NOT NULL,"
    "  valid_until INTEGER NOT NULL,"  // seconds since 1970-01-01; 0: for ever
    "  file_size INTEGER NOT NULL,"
    "  md5 BLOB NOT NULL,"
    "  added_by INTEGER NOT NULL,"  // uid
    "  UNIQUE (region, type, item, domain));"
    "CREATE TABLE items ("
    "  id INTEGER PRIMARY KEY,"
    "  uuid BLOB NOT NULL UNIQUE,"
    "  state INTEGER NOT NULL,"  // store::ItemState
    "  isolate_time INTEGER NOT NULL,"
    "  uid INTEGER NOT NULL,"  // owner of the file as it was
    "  stored_bytes INTEGER NOT NULL,"
    "  meta BLOB NOT NULL,"       // JSON, store::ItemMeta
    "  pending BLOB NOT NULL);",  // JSON, the plan of a restore under way
    "CREATE TABLE deletions ("    // under way: store::Deletions
    "  uuid BLOB PRIMARY KEY,"    // of the private name
    "  path BLOB NOT NULL,"       // without links
    "  device INTEGER NOT NULL,"
    "  inode INTEGER NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  modify_ns INTEGER NOT NULL);",
    "ALTER TABLE regions ADD COLUMN existed INTEGER NOT NULL DEFAULT 0;",  // when the entry was added
};

constexpr std::array kCacheSteps = {
    "CREATE TABLE tasks ("
    "  token BLOB PRIMARY KEY,"
    "  scan_type INTEGER NOT NULL,"
    "  owner_guid BLOB NOT NULL,"
    "  owner_pid INTEGER NOT NULL,"
    "  owner_uid INTEGER NOT NULL,"
    "  owner_start INTEGER NOT NULL);"
    "CREATE TABLE scan_keys ("
    "  id INTEGER PRIMARY KEY,"
    "  name BLOB NOT NULL UNIQUE);"
    "CREATE TABLE scanned ("
    "  device INTEGER NOT NULL,"
    "  inode INTEGER NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  change_ns INTEGER NOT NULL,"
    "  modify_ns INTEGER NOT NULL,"
    "  key_id INTEGER NOT NULL,"
    "  seq INTEGER NOT NULL,"  // grows with every entry: the smallest is the oldest
    "  PRIMARY KEY (device, inode)) WITHOUT ROWID;",
    "CREATE TABLE given_up ("  // store::WorkerDeaths
    "  device INTEGER NOT NULL,"
    "  inode INTEGER NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  change_ns INTEGER NOT NULL,"
    "  modify_ns INTEGER NOT NULL,"
    "  signatures BLOB NOT NULL,"
    "  seq INTEGER NOT NULL,"
    "  PRIMARY KEY (device, inode)) WITHOUT ROWID;",
};

}  // namespace

std::span<const char* const> storeSteps() {
  return kStoreSteps;
}

std::span<const char* const> cacheSteps() {
  return kCacheSteps;
}

void migrate(Database& database, std::span<const char* const> steps) {
  const std::lock_guard lock(database.mutex());
  const std::int64_t version = database.number("PRAGMA user_version");
  const auto known = static_cast<std::int64_t>(steps.size());
  if (version > known) {
    throw StoreError(platform::quoted(database.path()) + " is of version " + std::to_string(version) +
                     ", made by a newer agent: this one knows " + std::to_string(known));
  }
  if (version == known) {
    return;
  }
  Transaction transaction(database);
  for (const char* step : steps.subspan(static_cast<std::size_t>(version))) {
    database.run(step);
  }
  database.run(("PRAGMA user_version=" + std::to_string(known)).c_str());
  transaction.commit();
}

}  // namespace agent::store
