#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/ScanTypes.h"
#include "json/Values.h"

namespace agent {

/// What a file was when it was scanned: quarantine and the cache compare it before they trust it.
struct FileIdentity {
  std::uint64_t device = 0, inode = 0, size = 0;
  std::int64_t changeTimeNs = 0, modifyTimeNs = 0;
  static FileIdentity of(const struct stat& st);
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// Who asks: on the kernel's word.
struct CallerId {
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::vector<gid_t> groups;
  pid_t pid = 0;
};

/// The settings documents, one a config type. Documents are whole: every key has a value.
class Settings {
 public:
  virtual ~Settings() = default;
  virtual Json::Value document(json::ConfigType configType) const = 0;
  /// Merges a partial change after checking it against the settings table. False changes nothing and says
  /// why. A section that is null is a change of nothing.
  virtual bool change(json::ConfigType configType, const std::string& changeText, std::string* why) = 0;
  /// Grows with every change that changed something.
  virtual std::uint64_t generation() const = 0;
};

struct QuarantineRequest {
  int fd = -1;            ///< of the file as scanned; stays the caller's. -1: it is opened by the path
  std::string path;       ///< bytes; how it was reached
  FileIdentity identity;  ///< as scanned
  Detection detection;
  std::string md5;  ///< as scanned, lower case; may be empty
};

/// What became of something asked: ok (the detail is empty or one line worth knowing), or one line that says
/// why not.
struct Result {
  bool ok = false;
  std::string detail;
};

class Quarantine {
 public:
  virtual ~Quarantine() = default;
  /// Copies in, syncs, records, and only then removes the original, after checking it is the same file. Any
  /// number of threads at once. Never throws.
  virtual Result add(const QuarantineRequest& request) = 0;
  /// Removes the file for good, nothing is kept of it; after the same checks, and from as many threads.
  /// request: its detection and md5 are not looked at. Never throws.
  virtual Result remove(const QuarantineRequest& request) = 0;
  /// JSON array of isolation items (JsonReflect::IsolationItem), oldest first. `onlyOwner`: of that uid.
  /// Throws std::runtime_error when the database fails.
  virtual Json::Value list(std::optional<uid_t> onlyOwner) const = 0;
  struct RestoreOutcome {
    std::string uuid;
    Result result;
  };
  /// trust: add the path to the trust region as well. targetDir (bytes) empty: where it was. all: every item,
  /// for a caller other than root every item of his; uuids is ignored then. Forks for each item; one restore
  /// at a time. One that stands still is given up, and those behind it are not tried. Never throws.
  virtual std::vector<RestoreOutcome> restore(const std::vector<std::string>& uuids, bool all, bool trust,
                                              const std::string& targetDir, const CallerId& caller) = 0;
};

enum class RegionVerdict { kNone, kTrusted, kRejected };
class Regions {
 public:
  virtual ~Regions() = default;
  /// items: {"action":json::RegionAction,"type":json::RegionItemType,"domain":json::RegionDomain but kEvery,
  /// "is_all":bool,"items":[…]}, and optionally
  /// "valid_until": seconds since 1970-01-01, 0 for ever. Texts of items are in wire form (json::encodePath).
  /// All or nothing: one bad item refuses the change. Adding what is there renews its validity, deleting what
  /// is not there is done. is_all goes with del: every entry of the type and domain. False says why.
  virtual bool change(json::Region region, const Json::Value& items, const CallerId& caller,
                      std::string* why) = 0;
  /// JSON array of JsonReflect::FilterRegionItem.
  virtual Json::Value list(json::RegionDomain domain, json::RegionItemType itemType,
                           json::Region region) const = 0;
  /// By path, folder, extension and name: before a file is opened. Cheap.
  virtual RegionVerdict byPath(const std::string& path) const = 0;
  /// By MD5, SHA1, SHA256. hashesNeeded() says whether any such entry exists.
  virtual RegionVerdict byHash(const Verdict& hashes) const = 0;
  virtual bool hashesNeeded() const = 0;
  /// Something the scan's cached answers depend on: changes with every change of a region.
  virtual std::uint64_t generation() const = 0;
};

/// Clean results of earlier scans.
class ScanCache {
 public:
  virtual ~ScanCache() = default;
  /// key: signature version and options; a match means: known clean.
  virtual bool isClean(const FileIdentity& file, const std::string& key) const = 0;
  /// statusNs: the clock (since 1970-01-01) just before the identity was read. Nothing is remembered of a
  /// file that had changed so shortly before that it could change again and keep its times.
  virtual void remember(const FileIdentity& file, const std::string& key, std::int64_t statusNs) = 0;
  virtual void flush() = 0;
  virtual std::int64_t count() const = 0;
  virtual void clear() = 0;
};

/// Tasks under way, so that a restarted agent can tell their owners what became of them. put, remove and all
/// throw std::runtime_error when the database fails.
struct TaskRecord {
  std::string token;
  int scanType = 0;
  std::string ownerGuid;
  pid_t ownerPid = 0;
  uid_t ownerUid = 0;
  std::uint64_t ownerStartTicks = 0;
};
class TaskRecords {
 public:
  virtual ~TaskRecords() = default;
  virtual void put(const TaskRecord& task) = 0;
  virtual void remove(const std::string& token) = 0;
  virtual std::vector<TaskRecord> all() const = 0;
};

/// One SQLite database and the quarantine folder under the agent's state folder. Thread-safe.
class Store {
 public:
  /// Creates the folder (0700) and the schema, settles half-done quarantine work, loads the settings. The
  /// store starts a thread of its own with the first answer that the cache remembers, none before.
  /// restorePatience: how long a restore may stand still before it is given up.
  /// Throws std::runtime_error with one line when the store cannot be used.
  static std::unique_ptr<Store> open(const std::string& stateDir,
                                     std::chrono::milliseconds restorePatience = std::chrono::seconds(60));
  virtual ~Store() = default;
  virtual Settings& settings() = 0;
  virtual Quarantine& quarantine() = 0;
  virtual Regions& regions() = 0;
  virtual ScanCache& cache() = 0;
  virtual TaskRecords& tasks() = 0;
  /// What open() found and settled, one line each, for the log.
  virtual const std::vector<std::string>& notices() const = 0;
  /// One line in the audit record: who did what to what, and what came of it. Never throws.
  virtual void audit(const CallerId& who, const std::string& action, const std::string& object,
                     const std::string& outcome) = 0;
};

}  // namespace agent
