#pragma once

#include <string>

#include "platform/Descriptor.h"

/// A named mark that one process on the machine can hold: an advisory kernel lock on a file in a folder. The
/// mark lasts as long as the object or the process; a crash releases the mark. Every user who may open the
/// file may hold the mark. In a folder that a group may write, every member of the group may also choose the
/// attributes. One thread.
class CGlobalTag {
 public:
  struct TagConfig {
    std::string directory;  ///< the folder of the marks
    /// The folder given to setUserDirectory, else a folder for the effective uid.
    static TagConfig getUserConfig();
    /// Sets the folder that all users of one bus share: once at start-up, before the first mark. All consoles
    /// of one tree must name the same folder, whatever their environment.
    static void setUserDirectory(std::string directory);
  };

  CGlobalTag(const std::string& name, const TagConfig& config);
  ~CGlobalTag();
  CGlobalTag(const CGlobalTag&) = delete;
  CGlobalTag& operator=(const CGlobalTag&) = delete;

  static constexpr int kAcquired = 1;       ///< this process holds the mark now
  static constexpr int kHeldElsewhere = 2;  ///< another process holds the mark

  /// kAcquired or kHeldElsewhere; another value: the mark cannot be made, see lastError. wait: blocks until
  /// the mark is free.
  int trylock(bool wait);
  /// Writes "key=value" into the held mark for other processes ("pid"). False on failure.
  bool setAttribute(const std::string& key, const std::string& value);
  /// An attribute that the holder has set; empty when absent. Any process may read.
  std::string attribute(const std::string& key) const;
  const std::string& lastError() const { return lastError_; }

 private:
  std::string path_;
  std::string lastError_;
  platform::Descriptor file_;  ///< open while this process holds the mark
};
