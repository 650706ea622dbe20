#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/ScanTypes.h"

/// The values that the store and its users exchange.
namespace agent {

constexpr std::int64_t toNs(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// The state of a file at its scan. Quarantine and cache compare the state before they act on the file.
struct FileIdentity {
  std::uint64_t device = 0, inode = 0, size = 0;
  std::int64_t changeTimeNs = 0, modifyTimeNs = 0;
  static FileIdentity of(const struct stat& st);
  /// Compares all but the change time: a new name or another mode moves the change time.
  bool sameContent(const FileIdentity& other) const;
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// The process that sent a request, with the credentials that the kernel reports.
struct CallerId {
  uid_t uid = static_cast<uid_t>(-1);  ///< -1: the agent itself
  gid_t gid = static_cast<gid_t>(-1);
  std::vector<gid_t> groups;
  pid_t pid = 0;
};

/// One line worth knowing about something that succeeded; mostly empty.
using Remark = std::string;

struct QuarantineRequest {
  int fd = -1;            ///< the scanned file, owned by the caller. -1: the store opens the path
  std::string path;       ///< bytes; the path under which the scan encountered the file
  FileIdentity identity;  ///< as scanned
  Detection detection;
  std::string md5;  ///< as scanned, lower case; may be empty
  /// Asked before each block of the copy; may wait. False: the quarantine is undone, and fails. Empty: goes
  /// on.
  std::function<bool()> keepGoing{};
};

enum class RegionVerdict { kNone, kTrusted, kRejected };

/// A task under way and its owner.
struct TaskRecord {
  std::string token;
  int scanType = 0;
  std::string ownerGuid;
  pid_t ownerPid = 0;
  uid_t ownerUid = 0;
  std::uint64_t ownerStartTicks = 0;
};

}  // namespace agent
