#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// Clean results of earlier scans, in a hash table. A thread of the cache, started by the first result,
/// writes the results to the database in batches. The first look-up after a start reads the results back.
/// Beyond the limit the oldest sixteenth goes. A failing disk costs the unwritten results, never an answer.
/// Any thread.
class ScanCache {
 public:
  static constexpr std::size_t kMaxFiles = 1'000'000;
  explicit ScanCache(Database& database, std::size_t maxFiles = kMaxFiles);
  ~ScanCache();  ///< writes the remaining results

  /// key: signature version and options of the scan.
  bool isClean(const FileIdentity& file, const std::string& key) const;
  /// statusNs: the clock (since 1970-01-01) just before the identity was read. A file whose last change is
  /// too recent is not remembered: a further change could keep its times.
  void remember(const FileIdentity& file, const std::string& key, std::int64_t statusNs);
  void flush();
  std::int64_t count() const;
  void clear();

 private:
  struct Place {
    std::uint64_t device, inode;
    friend bool operator==(const Place&, const Place&) = default;
  };
  struct PlaceHash {
    std::size_t operator()(const Place& place) const;
  };
  struct Entry {
    std::uint64_t size;
    std::int64_t changeNs, modifyNs, keyId, seq;
  };
  struct Batch {
    std::vector<std::pair<Place, Entry>> rows;
    std::vector<std::pair<std::string, std::int64_t>> keys;
    std::int64_t evictBelow = 0;
    bool empty() const { return rows.empty() && keys.empty() && evictBelow == 0; }
  };

  void load() const;  ///< with mutex_ held
  void readRows() const;
  void evictOldest();
  void forgetAll();
  std::int64_t keyId(const std::string& key);
  Batch takeBatch();
  void write(const Batch& batch);
  void writeBehind();

  Database& database_;
  const std::size_t maxFiles_;
  std::mutex writing_;  ///< taken before mutex_: one batch at a time
  mutable std::mutex mutex_;
  mutable bool loaded_ = false;
  mutable std::unordered_map<Place, Entry, PlaceHash> files_;
  mutable std::unordered_map<std::string, std::int64_t> keys_;
  mutable std::int64_t lastSeq_ = 0, lastKey_ = 0;
  std::vector<Place> unwritten_;
  std::vector<std::string> unwrittenKeys_;
  std::int64_t evictBelow_ = 0;  ///< older entries are evicted, but still in the database
  bool stop_ = false;
  std::condition_variable wake_;
  std::thread writer_;
};

}  // namespace agent::store
