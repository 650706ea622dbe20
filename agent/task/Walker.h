#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/Descriptor.h"
#include "task/FileSystems.h"

namespace agent {

/// A regular file that a walk met, open for reading. Who holds it is the one who reads it.
struct MetFile {
  std::string path;      ///< bytes; how it was reached
  std::string resolved;  ///< bytes; where it is, when a link led to it; empty: at its path
  platform::Descriptor fd;
  std::int64_t statusNs = 0;  ///< the clock just before the status was read, since 1970-01-01
  struct stat status {};
  bool folderWritable = false;  ///< its folder can be written with the rights the walk had
};

/// Takes what a walk meets. Each entry comes once, in exactly one of these ways.
class WalkSink {
 public:
  virtual void file(MetFile met) = 0;
  virtual void skipped(const std::string& path, const std::string& reason) = 0;
  virtual void failed(const std::string& path, const std::string& reason) = 0;
  /// Asked before each entry; false ends the walk. May wait.
  virtual bool keepGoing() = 0;
  /// A part of the whole work is behind us: the shares of one walk add up to what it was given.
  virtual void advanced(double share) = 0;

 protected:
  ~WalkSink() = default;
};

/// Walks folders by descriptor: every name is opened once, below the folder that holds it, and no symbolic
/// link is followed below the path that was named. One thread, with whatever rights that thread has; depth
/// costs memory, not descriptors. Other mounts are entered, pseudo file systems are not.
class Walker {
 public:
  struct Options {
    std::vector<std::string> excludedFolders;  ///< resolved paths that are never entered
    bool networkFileSystems = true;            ///< enter them; one that was asked for is always entered
    std::size_t entriesAtOnce = 8192;          ///< of one folder, held in memory
    std::function<FileSystem(int)> fileSystem = fileSystemOf;  ///< of a descriptor
  };
  Walker(Options options, WalkSink& sink);

  /// A path that somebody named, opened: links in it resolved.
  struct Named {
    std::string path;      ///< as it was named
    std::string resolved;  ///< where the links in it lead; empty when the kernel does not say
    platform::Descriptor fd;
    std::int64_t statusNs = 0;
    struct stat status {};
    std::string skipReason;  ///< something that is no file and no folder: not opened
    bool asked = false;      ///< by who started the scan: entered whatever its file system is
  };
  /// Empty error when it could be opened.
  static Named open(const std::string& path, std::string* error);

  /// Why nothing of it would be met: it is no file and no folder, or in a place that is not entered. Empty
  /// when it can be walked.
  std::string whyNotWalked(const Named& named) const;

  /// Walks it; `share` is its part of the whole work.
  void walk(Named named, double share);

 private:
  struct Folder {
    platform::Descriptor fd;  ///< empty while too deep a walk keeps it closed
    dev_t device = 0;
    ino_t inode = 0;
    std::size_t pathLength = 0;                              ///< of path_, this folder's part of it
    std::vector<std::pair<std::string, double>> subfolders;  ///< names not entered yet, with their shares
  };
  void walkFolder(platform::Descriptor fd, const struct stat& status, double share);
  bool enter(platform::Descriptor fd, const struct stat& status, double share, bool named);
  bool enterNext();
  bool readEntries(Folder& folder, double share);
  void meet(Folder& folder, const std::string& name, unsigned char type, double share, bool writable);
  void meetFile(const Folder& folder, const std::string& name, bool writable);
  bool reopenParent(const Folder& child, Folder& parent);
  std::string refusal(int fd, bool networkAllowed) const;
  void begin(const Named& named);
  std::string resolvedName() const;
  void setName(const Folder& folder, const std::string& name);
  void reportUnopened(int error);
  void reportUnreadEnd(const Folder& folder, int error);
  void loseTheRest();

  Options options_;
  WalkSink& sink_;
  std::string path_;
  std::size_t namedLength_ = 0;  // of path_, what stands for the named path
  std::string resolvedBase_;     // stands in its place when it is resolved
  bool throughLink_ = false;     // the two differ
  std::vector<Folder> stack_;
  struct PairHash {
    std::size_t operator()(const std::pair<dev_t, ino_t>& key) const {
      return std::hash<std::uint64_t>()(key.first * 0x9E3779B97F4A7C15u ^ key.second);
    }
  };
  using FolderSet = std::unordered_set<std::pair<dev_t, ino_t>, PairHash>;
  FolderSet excluded_;
  FolderSet entered_;
};

/// What an entry that is no regular file and no folder is called in a reason.
const char* specialKind(mode_t mode);

}  // namespace agent
