#pragma once

#include <optional>
#include <string>

#include "platform/Descriptor.h"
#include "platform/Expected.h"

namespace agent {

/// The parent folders of everything that workers unpack: one in memory for small files, one on disk. The
/// agent makes both before starting the spawner, 0700 and locked until it ends. The next agent removes the
/// folders of a killed one.
class TempFolders {
 public:
  /// disk: parent of the folder on disk; empty: $TMPDIR, else /tmp.
  explicit TempFolders(const std::string& disk);

  /// The folder in memory; empty when there is none: then the disk is used for all files.
  const std::string& quick() const { return quick_; }
  /// The folder on disk; without one no file can be scanned.
  const platform::Expected<std::string>& disk() const { return disk_; }
  /// Removes both with their content.
  void remove();
  /// Removes the content.
  void clear() const;

 private:
  std::string quick_;
  platform::Expected<std::string> disk_;
  platform::Descriptor quickLock_, diskLock_;
};

/// The two folders of one worker; quick may be empty.
struct WorkerFolders {
  std::string quick, disk;
  /// Makes them in `parents`, named by this process and the number. Nothing when `disk` cannot be made.
  static std::optional<WorkerFolders> make(const TempFolders& parents, unsigned number);
  static std::optional<WorkerFolders> make(const WorkerFolders& parents, unsigned number);
  void remove() const;
  /// Removes all folders that the ended process made.
  static void removeOf(const WorkerFolders& parents, int pid);
};

}  // namespace agent
