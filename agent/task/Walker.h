#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/Descriptor.h"
#include "platform/Expected.h"
#include "task/EncounteredFile.h"
#include "task/FileSystems.h"

namespace agent {

/// Takes the entries of a walk. Each entry comes once, to exactly one of file, skipped and failed.
class WalkSink {
 public:
  virtual void file(EncounteredFile file) = 0;
  virtual void skipped(const std::string& path, const std::string& reason) = 0;
  virtual void failed(const std::string& path, const std::string& reason) = 0;
  /// Called before each entry. False ends the walk. May wait.
  virtual bool keepGoing() = 0;
  /// A part of the whole work has ended. The shares of one walk add up to the share of that walk.
  virtual void advanced(double share) = 0;

 protected:
  ~WalkSink() = default;
};

/// The origin of a named path: the caller's request, or the agent's own list of places. A network file system
/// is always entered at a path that the caller named.
enum class NamedBy { kCaller, kAgent };

/// What a walk hands over: everything, or nothing but setuid and setgid files and what could not be looked
/// at.
enum class Wanted { kEverything, kSetuidFiles };

/// Walks folders by descriptor. Each name is opened once, below its folder. The walk follows symbolic links
/// in the named path only. The walk enters other mounts, but no pseudo file systems. Depth costs memory, not
/// descriptors. One thread, with the rights of that thread.
class Walker {
 public:
  struct Options {
    std::vector<std::string> excludedFolders;                  ///< resolved paths that are never entered
    bool networkFileSystems = true;                            ///< enter network file systems, too
    std::size_t entriesAtOnce = 8192;                          ///< of one folder, held in memory
    std::function<FileSystem(int)> fileSystem = fileSystemOf;  ///< of a descriptor
  };
  Walker(Options options, WalkSink& sink);

  /// Opens a named path, links resolved: a file, a folder, or a special entry without a descriptor.
  static platform::Expected<EncounteredFile> open(const std::string& path);

  /// Fails when the walk would skip the whole of `named`: a special entry, or a folder that the walk does not
  /// enter.
  platform::Expected<void> checkWalkable(const EncounteredFile& named, NamedBy by) const;

  /// Walks `named`. share: the part of `named` in the whole work.
  void walk(EncounteredFile named, double share, NamedBy by = NamedBy::kAgent,
            Wanted wanted = Wanted::kEverything);

 private:
  struct Folder {
    platform::Descriptor fd;  ///< closed while the walk is many levels below
    dev_t device = 0;
    ino_t inode = 0;
    std::size_t pathLength = 0;                              ///< the length of this folder's path in path_
    std::vector<std::pair<std::string, double>> subfolders;  ///< names not entered yet, with shares
  };
  void walkFolder(platform::Descriptor fd, const struct stat& status, double share);
  bool enter(platform::Descriptor fd, const struct stat& status, double share, bool named);
  bool enterNext();
  bool readEntries(Folder& folder, double share);
  void visitEntry(Folder& folder, const std::string& name, unsigned char type, double share, bool writable);
  void visitFile(const Folder& folder, const std::string& name, bool writable);
  bool reopenParent(const Folder& child, Folder& parent);
  platform::Expected<void> checkMountPoint(const Folder& folder, const std::string& name) const;
  platform::Expected<void> checkFileSystem(int fd, bool networkAllowed) const;
  bool isSetuidFile(const Folder& folder, const std::string& name);
  void begin(const EncounteredFile& named, Wanted wanted);
  std::string resolvedPath() const;
  void setName(const Folder& folder, const std::string& name);
  void reportSkipped(const std::string& reason);
  void reportUnopened(int error);
  void reportUnreadEnd(const Folder& folder, int error);
  void failRemaining();

  Options options_;
  WalkSink& sink_;
  Wanted wanted_ = Wanted::kEverything;
  std::string path_;             // of the entry under way
  std::size_t namedLength_ = 0;  // the length of the named path in path_
  std::string resolvedBase_;     // the named path, resolved
  bool throughLink_ = false;     // resolvedBase_ differs from the named path
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

/// The name, for a reason, of an entry that is neither a regular file nor a folder.
const char* specialKind(mode_t mode);
/// The path of an open file or folder, links resolved; empty when the kernel does not know one.
std::string pathOf(int fd);
/// True for the folder itself, too. Absolute paths without a "/" at the end.
bool isWithin(const std::string& path, const std::string& folder);
/// True when the calling thread may add and remove entries of the folder that holds `path`.
bool mayWriteFolderOf(const std::string& path);

}  // namespace agent
