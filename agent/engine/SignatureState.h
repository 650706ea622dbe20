#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

/// kPartly: a file of the system's database is left out, or a copy of an earlier load serves for it.
/// kLeftOut: the system's database is there, and none of it loads.
enum class SystemDatabase : std::uint8_t { kNone, kInForce, kPartly, kLeftOut };

/// A signature file as it was loaded.
struct SignatureFile {
  std::string name;
  std::uint64_t bytes = 0;
  std::string sha256;
};

/// The signatures in use.
struct SignatureState {
  /// Longer names and more files are in no list here: the state travels in one message.
  static constexpr std::size_t kLongestName = 64;
  static constexpr std::size_t kMostFiles = 128;

  bool loading = false;  ///< a load is running; the other members are those of the load before
  bool loaded = false;
  SystemDatabase system = SystemDatabase::kNone;
  std::string
      version;  ///< part of a cache key; changes with the content of any signature file; empty: not loaded
  std::string detail;       ///< one line: why nothing is loaded, or which folders are loaded and which not
  unsigned long count = 0;  ///< of signatures in use
  /// One line: which of the system's signatures are not in use, and why. Empty: all are.
  std::string shortage;
  std::string rules;   ///< one line: the versions of what scans, beside the signatures
  std::string limits;  ///< one line
  /// Which of the system's files did not load, by databaseOf. For some of them a copy is in use.
  std::vector<std::string> notInUse;
  bool unsettled = false;  ///< it cannot be told which files are in use: nothing of this is kept as a copy
  std::vector<SignatureFile> files;  ///< of the system's folder, in use
  std::vector<std::string> copies;   ///< names of the copies that serve for files of the system's folder
};

}  // namespace agent
