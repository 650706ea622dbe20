#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "engine/ScanTypes.h"
#include "store/StoreTypes.h"
#include "task/EncounteredFile.h"

namespace agent {

/// The end of a file: its verdict, with the lists of hashes applied.
struct FileEnd {
  Verdict verdict;
  bool trusted = false;  ///< the lists trust its hash
};

/// The files with several names (hard links) of one scan. The first name is scanned, and each further name
/// ends as the first one did. A file that changed between two names is another file. Any thread.
class LinkedFiles {
 public:
  using File = std::shared_ptr<EncounteredFile>;
  enum class Turn { kScan, kWaits, kEnded };
  struct Met {
    Turn turn = Turn::kScan;
    std::shared_ptr<const FileEnd> end;  ///< kEnded only
  };

  /// kScan: the caller scans the file and calls ended(). kWaits: ended() of the first name returns the file.
  /// Waits while very many names wait, unless held.
  Met meet(const File& file);
  /// Keeps the end of a first name. Returns the names that waited for that end.
  std::vector<File> ended(const EncounteredFile& first, const std::shared_ptr<const FileEnd>& end);
  /// Until release() no first name ends.
  void hold() { setHeld(true); }
  void release() { setHeld(false); }

 private:
  struct Entry {
    std::shared_ptr<const FileEnd> end;  // null: the first name is being scanned
    std::vector<File> waiting;           // each with an open descriptor
    std::uint64_t namesLeft = 0;         // not met yet; with 0 and an end, the entry goes
  };
  struct Hash {
    std::size_t operator()(const FileIdentity& identity) const {
      return std::hash<std::uint64_t>()(identity.device * 0x9E3779B97F4A7C15u ^ identity.inode);
    }
  };

  void setHeld(bool held);

  std::mutex mutex_;
  std::condition_variable fewer_;
  std::size_t waiting_ = 0;
  bool held_ = false;
  std::unordered_map<FileIdentity, Entry, Hash> entries_;
};

}  // namespace agent
