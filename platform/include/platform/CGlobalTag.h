#pragma once

#include <string>

/// A named mark that one process on the machine can hold: an advisory lock of the kernel's on a file in a
/// folder. It lasts as long as the object, or the process; a crash releases it. Who may open the file may
/// hold the mark and, in a folder that a group may write, choose its attributes: believe no more of them than
/// of that group. One thread.
class CGlobalTag {
 public:
  struct TagConfig {
    std::string directory;  ///< where the marks lie
    /// The configuration of this process: the folder given to setUserDirectory, else a folder of the uid's.
    static TagConfig getUserConfig();
    /// Set once at start-up, before the first mark; the folder that all users of one bus share. All consoles
    /// of one tree must name the same folder, whatever their environment.
    static void setUserDirectory(std::string directory);
  };

  CGlobalTag(const std::string& name, const TagConfig& config);
  ~CGlobalTag();
  CGlobalTag(const CGlobalTag&) = delete;
  CGlobalTag& operator=(const CGlobalTag&) = delete;

  static constexpr int kAcquired = 1;       ///< this process holds the mark now
  static constexpr int kHeldElsewhere = 2;  ///< another process does

  /// One of the two, else the mark cannot be made (why: lastError). wait: block until it is free.
  int trylock(bool wait);
  /// Writes "key=value" into the mark for others to read ("pid"); while held only. False on failure.
  bool setAttribute(const std::string& key, const std::string& value);
  /// What another process has set; empty when absent. Holding the mark is not needed.
  std::string attribute(const std::string& key) const;
  const std::string& lastError() const { return lastError_; }

 private:
  std::string path_;
  std::string lastError_;
  int fd_ = -1;
  bool held_ = false;
};
