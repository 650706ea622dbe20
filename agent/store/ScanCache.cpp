#include "store/ScanCache.h"

#include <algorithm>
#include <chrono>

namespace agent::store {
namespace {

constexpr std::size_t kBatch = 4096;
constexpr auto kWriteAfter = std::chrono::seconds(5);
/// More keys than needed: years of signature versions.
constexpr std::size_t kMaxKeys = 4096;
/// The step of the kernel's time stamps: a file changed within it may change again and keep its times.
constexpr std::int64_t kTooYoungNs = 10'000'000;

}  // namespace

std::size_t ScanCache::PlaceHash::operator()(const Place& place) const {
  std::uint64_t mixed =
      place.inode * 0x9E3779B97F4A7C15U ^ (place.device + 0x7F4A7C15U) * 0xBF58476D1CE4E5B9U;
  mixed ^= mixed >> 31;
  return mixed;
}

ScanCache::ScanCache(Database& database, std::size_t maxFiles) : database_(database), maxFiles_(maxFiles) {}

ScanCache::~ScanCache() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (writer_.joinable()) {
    writer_.join();
  }
  flush();
}

void ScanCache::load() const {
  if (loaded_) {
    return;
  }
  loaded_ = true;
  try {
    readRows();
  } catch (const StoreError&) {
    files_.clear();  // an empty cache is slow, not wrong
  }
}

void ScanCache::readRows() const {
  const std::lock_guard lock(database_.mutex());
  Statement keys(database_, "SELECT name,id FROM scan_keys");
  while (keys.step()) {
    keys_[keys.text(0)] = keys.number(1);
    lastKey_ = std::max(lastKey_, keys.number(1));
  }
  Statement rows(database_, "SELECT device,inode,size,change_ns,modify_ns,key_id,seq FROM scanned");
  while (rows.step()) {
    const Place place{static_cast<std::uint64_t>(rows.number(0)), static_cast<std::uint64_t>(rows.number(1))};
    files_[place] = {static_cast<std::uint64_t>(rows.number(2)), rows.number(3), rows.number(4),
                     rows.number(5), rows.number(6)};
    lastSeq_ = std::max(lastSeq_, rows.number(6));
    lastKey_ = std::max(lastKey_, rows.number(5));  // no id is used twice while a row has it
  }
}

bool ScanCache::isClean(const FileIdentity& file, const std::string& key) const {
  const std::lock_guard lock(mutex_);
  load();
  const auto found = files_.find({file.device, file.inode});
  if (found == files_.end()) {
    return false;
  }
  const Entry& entry = found->second;
  if (entry.size != file.size || entry.changeNs != file.changeTimeNs || entry.modifyNs != file.modifyTimeNs) {
    return false;
  }
  const auto known = keys_.find(key);
  return known != keys_.end() && known->second == entry.keyId;
}

void ScanCache::remember(const FileIdentity& file, const std::string& key, std::int64_t statusNs) {
  if (statusNs - file.changeTimeNs < kTooYoungNs) {
    return;
  }
  const std::lock_guard lock(mutex_);
  load();
  const std::int64_t id = keyId(key);
  const Place place{file.device, file.inode};
  files_[place] = {file.size, file.changeTimeNs, file.modifyTimeNs, id, ++lastSeq_};
  unwritten_.push_back(place);
  if (files_.size() > maxFiles_) {
    evictOldest();
  }
  if (!writer_.joinable()) {
    writer_ = std::thread([this] { writeBehind(); });
  }
  if (unwritten_.size() >= kBatch) {
    wake_.notify_one();
  }
}

std::int64_t ScanCache::keyId(const std::string& key) {
  const auto found = keys_.find(key);
  if (found != keys_.end()) {
    return found->second;
  }
  if (keys_.size() >= kMaxKeys) {
    forgetAll();
    evictBelow_ = lastSeq_ + 1;
  }
  keys_[key] = ++lastKey_;
  unwrittenKeys_.push_back(key);
  return lastKey_;
}

void ScanCache::forgetAll() {
  files_.clear();
  keys_.clear();
  unwritten_.clear();
  unwrittenKeys_.clear();
}

void ScanCache::evictOldest() {
  std::vector<std::int64_t> order;
  order.reserve(files_.size());
  for (const auto& [place, entry] : files_) {
    order.push_back(entry.seq);
  }
  const std::size_t going = order.size() - maxFiles_ + maxFiles_ / 16;
  const auto edge = order.begin() + static_cast<std::ptrdiff_t>(std::min(going, order.size() - 1));
  std::nth_element(order.begin(), edge, order.end());
  evictBelow_ = *edge;
  std::erase_if(files_, [below = evictBelow_](const auto& file) { return file.second.seq < below; });
}

ScanCache::Batch ScanCache::takeBatch() {
  const std::lock_guard lock(mutex_);
  Batch batch;
  batch.rows.reserve(unwritten_.size());
  for (const Place& place : unwritten_) {
    const auto found = files_.find(place);
    if (found != files_.end()) {
      batch.rows.emplace_back(place, found->second);
    }
  }
  for (const std::string& key : unwrittenKeys_) {
    batch.keys.emplace_back(key, keys_.at(key));
  }
  batch.evictBelow = std::exchange(evictBelow_, 0);
  unwritten_.clear();
  unwrittenKeys_.clear();
  return batch;
}

void ScanCache::write(const Batch& batch) {
  const std::lock_guard lock(database_.mutex());
  Transaction transaction(database_);
  if (batch.evictBelow > 0) {
    Statement(database_, "DELETE FROM scanned WHERE seq<?").bind(batch.evictBelow).run();
  }
  Statement addKey(database_, "INSERT OR REPLACE INTO scan_keys (name,id) VALUES (?,?)");
  for (const auto& [key, id] : batch.keys) {
    addKey.bind(key, id).run();
  }
  Statement addRow(database_, "INSERT OR REPLACE INTO scanned VALUES (?,?,?,?,?,?,?)");
  for (const auto& [place, entry] : batch.rows) {
    addRow.bind(place.device, place.inode, entry.size, entry.changeNs, entry.modifyNs, entry.keyId, entry.seq)
        .run();
  }
  if (batch.evictBelow > 0) {
    database_.run("DELETE FROM scan_keys WHERE id NOT IN (SELECT key_id FROM scanned)");
  }
  transaction.commit();
}

void ScanCache::flush() {
  const std::lock_guard writing(writing_);
  try {
    const Batch batch = takeBatch();
    if (!batch.empty()) {
      write(batch);
    }
  } catch (const std::exception&) {
    // The results stay in memory; after a restart those files are scanned again.
  }
}

void ScanCache::writeBehind() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    wake_.wait_for(lock, kWriteAfter, [this] { return stop_ || unwritten_.size() >= kBatch; });
    lock.unlock();
    flush();
    lock.lock();
  }
}

std::int64_t ScanCache::count() const {
  const std::lock_guard lock(mutex_);
  load();
  return static_cast<std::int64_t>(files_.size());
}

void ScanCache::clear() {
  const std::lock_guard writing(writing_);
  {
    const std::lock_guard lock(mutex_);
    loaded_ = true;
    forgetAll();
    evictBelow_ = 0;
  }
  try {
    const std::lock_guard lock(database_.mutex());
    Transaction transaction(database_);
    database_.run("DELETE FROM scanned");
    database_.run("DELETE FROM scan_keys");
    transaction.commit();
  } catch (const std::exception&) {
    const std::lock_guard lock(mutex_);
    evictBelow_ = lastSeq_ + 1;  // tried again with the next batch
  }
}

}  // namespace agent::store
