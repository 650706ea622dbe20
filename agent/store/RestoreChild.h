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

/// What one restore is to do, and on whose rights.
struct RestoreJob {
  const ItemMeta* meta = nullptr;
  std::string folder, name;
  std::string temporaryName;  ///< in that folder, where nameless files cannot be
  bool switchUser = false;    ///< to the caller below; else as the agent is
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  bool privileged = false;  ///< owner, setuid, setgid and capabilities come back
  int busyMark = -1;        ///< the one descriptor of the agent's that the child keeps: see Vault::setBusy
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
  kStalled,  ///< said by the parent: it did not get on
  kDone
};

/// How far the child came. Travels over a socket as it is.
struct RestoreReport {
  RestoreStage stage = RestoreStage::kAborted;
  std::int32_t error = 0;            ///< errno value
  std::uint64_t failedEnd = 0;       ///< of kFolder: length of the path up to the component that failed
  std::uint32_t attributesLeft = 0;  ///< extended attributes that did not come back
  std::uint32_t setidLeft = 0;       ///< setuid or setgid did not come back
};

/// A file being restored by a child process that has the caller's rights and nothing else: it walks to the
/// folder, makes a nameless file, takes the content, gives it owner, mode, attributes and times, syncs it and
/// gives it its name, all by calls that are safe after a fork. When this process dies before commit(), so
/// does the attempt, without a trace; when it dies later, so does the child at once. One at a time in a
/// process.
///
/// The child can be stopped by its user, and the folder be on a file system of his that never answers. So no
/// call here waits longer than `patience` without anything being taken, nor all of them together longer than
/// `patience` and as much again for every 64 MiB: the child is then killed, and the report says kStalled.
class RestoreChild {
 public:
  /// Throws StoreError when no process can be made.
  RestoreChild(const RestoreJob& job, std::chrono::milliseconds patience);
  ~RestoreChild();  ///< without commit(): nothing was restored
  RestoreChild(const RestoreChild&) = delete;
  RestoreChild& operator=(const RestoreChild&) = delete;
  bool send(std::string_view bytes);  ///< false: the child has given up; report() says why
  /// All was sent and is as it was: the file may have its name.
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

/// One line for what went wrong.
std::string whyNotRestored(const RestoreJob& job, const RestoreReport& report);

}  // namespace agent::store
