#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Posix.h"
#include "store/ItemMeta.h"

namespace agent::store {

/// The task of one restore, and the rights for it.
struct RestoreJob {
  const ItemMeta* meta = nullptr;
  std::string folder, name;
  std::string temporaryName;  ///< in that folder, for a file system without nameless files
  bool switchUser = false;    ///< act as the user below; else as the agent's user
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  bool privileged = false;  ///< owner, setuid, setgid and capabilities come back
  int busyLock = -1;        ///< the only descriptor of the agent that the child keeps: see Vault::setBusy
};

enum class RestoreStage : std::int32_t {
  kUser,
  kFolder,
  kExists,
  kCreate,
  kWrite,
  kOwner,
  kMode,
  kTimes,
  kSync,
  kPlace,
  kAborted,
  kStalled,  ///< set by the parent: the child made no progress
  kDone
};

/// The progress of the child. Travels over a socket as it is.
struct RestoreReport {
  RestoreStage stage = RestoreStage::kAborted;
  std::int32_t error = 0;            ///< errno value
  std::uint64_t failedEnd = 0;       ///< for kFolder: length of the path up to the failed component
  std::uint32_t attributesLeft = 0;  ///< extended attributes that were not restored
  std::uint32_t setidLeft = 0;       ///< 1: setuid or setgid was not restored
};

/// One restore by a child process that has only the caller's rights. The child walks to the folder, makes a
/// nameless file, takes the content, sets owner, mode, attributes and times, syncs the file and names it. All
/// its calls are safe after a fork. If this process dies before commit(), the attempt leaves no trace; if it
/// dies later, the child dies at once. One child at a time in a process.
///
/// A user can stop the child, or own a file system that never answers. So no call here waits longer than
/// `patience` without progress. All calls together wait no longer than `patience`, and as much again for
/// every 64 MiB. Then the child is killed, and the report says kStalled.
class RestoreChild {
 public:
  /// Throws StoreError when no process can be made.
  RestoreChild(const RestoreJob& job, std::chrono::milliseconds patience);
  ~RestoreChild();  ///< without commit(): nothing was restored
  RestoreChild(const RestoreChild&) = delete;
  RestoreChild& operator=(const RestoreChild&) = delete;
  bool send(std::string_view bytes);  ///< false: the child has given up; report() has the reason
  /// Confirms the whole content: the file may get its name.
  bool commit() { return send("C"); }
  RestoreReport report();  ///< waits for the child, and ends it

 private:
  using Clock = std::chrono::steady_clock;
  void waitAtMost(int option, std::chrono::milliseconds limit);
  void end();

  const std::chrono::milliseconds patience_;
  const Clock::time_point deadline_;
  bool stalled_ = false;
  platform::Descriptor channel_;
  pid_t pid_ = -1;
};

/// One line for a report other than kDone.
std::string restoreFailure(const RestoreJob& job, const RestoreReport& report);

}  // namespace agent::store
