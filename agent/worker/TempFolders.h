#pragma once

#include <string>

#include "platform/Descriptor.h"

namespace agent {

/// The folders under which workers keep what they unpack: one in memory for small files, one on disk. Made by
/// the agent before it forks the spawner, 0700, locked while it lives; what an agent that was killed left
/// behind is removed by the next one.
class TempFolders {
 public:
  /// disk: a folder to make ours in; empty: $TMPDIR, else /tmp.
  explicit TempFolders(const std::string& disk);
  TempFolders() = default;

  /// Empty when there is none: then all goes to disk.
  const std::string& quick() const { return quick_; }
  /// Empty when it could not be made: problem() says why, and nothing can be scanned.
  const std::string& disk() const { return disk_; }
  const std::string& problem() const { return problem_; }
  /// Removes both with all that is in them.
  void remove();

 private:
  std::string make(const std::string& parent, platform::Descriptor& lock);

  std::string quick_, disk_, problem_;
  platform::Descriptor quickLock_, diskLock_;
};

/// The two folders of one worker.
struct WorkerFolders {
  std::string quick, disk;
  /// Makes them below the others, with this number in their name. disk empty: it could not be made.
  static WorkerFolders make(const TempFolders& parents, unsigned number);
  void remove() const;
  /// Removes those that a process made which has ended.
  static void removeOf(const TempFolders& parents, int pid);
};

}  // namespace agent
