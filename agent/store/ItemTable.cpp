#include "store/ItemTable.h"

namespace agent::store {
namespace {

constexpr int value(ItemState state) {
  return static_cast<int>(state);
}

/// Columns: uuid, state, stored_bytes, meta, pending.
ItemRow rowOf(const Statement& rows) {
  const std::int64_t state = rows.number(1);
  if (state < 0 || state > value(ItemState::kRestoring)) {
    throw StoreError("the quarantine's table is damaged: an item in an unknown state");
  }
  return {rows.text(0), static_cast<ItemState>(state), static_cast<std::uint64_t>(rows.number(2)),
          rows.text(3), rows.text(4)};
}

}  // namespace

void ItemTable::insert(const ItemMeta& meta, ItemState state, std::uint64_t storedBytes) {
  const std::lock_guard lock(database_.mutex());
  Statement(
      database_,
      "INSERT INTO items (uuid,state,isolate_time,uid,stored_bytes,meta,pending) VALUES (?,?,?,?,?,?,'')")
      .bind(meta.uuid, value(state), meta.isolateTimeSec, meta.uid, storedBytes, meta.toText())
      .run();
}

void ItemTable::setState(const std::string& uuid, ItemState state, const std::string& pending) {
  const std::lock_guard lock(database_.mutex());
  Statement(database_, "UPDATE items SET state=?,pending=? WHERE uuid=?")
      .bind(value(state), pending, uuid)
      .run();
}

void ItemTable::erase(const std::string& uuid) {
  const std::lock_guard lock(database_.mutex());
  Statement(database_, "DELETE FROM items WHERE uuid=?").bind(uuid).run();
}

std::optional<ItemRow> ItemTable::find(const std::string& uuid) {
  const std::lock_guard lock(database_.mutex());
  Statement row(database_, "SELECT uuid,state,stored_bytes,meta,pending FROM items WHERE uuid=?");
  return row.bind(uuid).step() ? std::optional(rowOf(row)) : std::nullopt;
}

std::vector<ItemRow> ItemTable::halfDone() {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_,
                 "SELECT uuid,state,stored_bytes,meta,pending FROM items WHERE state<>? ORDER BY id");
  std::vector<ItemRow> found;
  for (rows.bind(value(ItemState::kComplete)); rows.step();) {
    found.push_back(rowOf(rows));
  }
  return found;
}

std::vector<std::string> ItemTable::uuids() {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_, "SELECT uuid FROM items WHERE state<>? ORDER BY isolate_time,id");
  std::vector<std::string> found;
  for (rows.bind(value(ItemState::kRemoving)); rows.step();) {
    found.push_back(rows.text(0));
  }
  return found;
}

void ItemTable::forEach(std::optional<uid_t> owner, const std::function<void(const ItemRow&)>& visit) {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_,
                 "SELECT uuid,state,stored_bytes,meta,pending FROM items"
                 " WHERE state<>?1 AND (?2 OR uid=?3) ORDER BY isolate_time,id");
  for (rows.bind(value(ItemState::kRemoving), owner ? 0 : 1, owner.value_or(0)); rows.step();) {
    visit(rowOf(rows));
  }
}

std::uint64_t ItemTable::totalBytes() {
  const std::lock_guard lock(database_.mutex());
  return static_cast<std::uint64_t>(database_.number("SELECT coalesce(sum(stored_bytes),0) FROM items"));
}

std::vector<ItemTable::Aged> ItemTable::byAge() {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_,
                 "SELECT uuid,isolate_time,stored_bytes FROM items WHERE state=? ORDER BY isolate_time,id");
  std::vector<Aged> found;
  for (rows.bind(value(ItemState::kComplete)); rows.step();) {
    found.push_back({rows.text(0), rows.number(1), static_cast<std::uint64_t>(rows.number(2))});
  }
  return found;
}

}  // namespace agent::store
