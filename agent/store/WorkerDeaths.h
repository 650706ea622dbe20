#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The files on which scanning processes died. A file with three deaths within an hour is given up: it is not
/// scanned again until the file or the signatures change. The files given up are kept in the cache's
/// database; the deaths of the last hour are kept in memory only. Beyond each limit the oldest goes. Any
/// thread.
class WorkerDeaths {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::hours kPeriod{1};
  static constexpr std::size_t kDeathsToGiveUp = 3;
  static constexpr std::size_t kMaxDeaths = 4096;
  static constexpr std::size_t kMaxGivenUp = 10'000;

  /// Reads the files given up.
  explicit WorkerDeaths(Database& database, std::size_t maxDeaths = kMaxDeaths,
                        std::size_t maxGivenUp = kMaxGivenUp);

  /// Within the last hour, with the death that was just added.
  struct Count {
    std::size_t ofFile = 0;       ///< with this identity and these signatures
    std::size_t ofOwner = 0;      ///< of all files that the owner has
    std::size_t ownersFiles = 0;  ///< the number of these files
    bool givenUp = false;         ///< by this death
  };
  /// signatures: their version. Never throws for a failing database: the file is then given up until the end
  /// of the agent.
  Count add(const FileIdentity& file, uid_t owner, const std::string& signatures, Clock::time_point now);
  bool isGivenUp(const FileIdentity& file, const std::string& signatures) const;

 private:
  struct Death {
    Clock::time_point at;
    FileIdentity file;
    uid_t owner;
    std::string signatures;
  };
  using Place = std::pair<std::uint64_t, std::uint64_t>;  // device and inode
  struct GivenUp {
    FileIdentity file;
    std::string signatures;
    std::int64_t seq;  // grows with every entry: the smallest is the oldest
  };

  void giveUp(const FileIdentity& file, const std::string& signatures);
  void write(const GivenUp& entry);
  std::map<Place, GivenUp>::const_iterator oldest() const;

  Database& database_;
  const std::size_t maxDeaths_, maxGivenUp_;
  mutable std::mutex mutex_;
  std::deque<Death> deaths_;  // the oldest first
  std::map<Place, GivenUp> givenUp_;
  std::int64_t lastSeq_ = 0;
};

}  // namespace agent::store
