#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "engine/SignatureFolder.h"
#include "engine/SignatureState.h"

namespace agent {

/// Which files are loaded for the system's database. For each database the first candidate that loads serves:
/// the versions in the system's folder, the newest first, then the copy of the last good load.
class SignatureChoice {
 public:
  /// copyForMissing: a copy also serves where the system's folder has no such file any more.
  SignatureChoice(const SignatureFolder& system, const SignatureFolder& copies, bool copyForMissing);

  /// The full paths of the files to load, in order.
  std::vector<std::string> paths() const;
  /// The file does not load: the next candidate serves, if there is one.
  void refuse(const std::string& path, const std::string& reason);
  void refuseAll(const std::string& reason);
  /// Fills system, shortage, notInUse and copies. For the choice as it was loaded.
  void describe(SignatureState& state) const;

 private:
  struct Candidate {
    std::string name, path;
    bool isCopy = false;
  };
  struct Slot {
    std::string key;
    std::vector<Candidate> candidates;
    std::size_t next = 0;  // the candidate in use; the number of candidates: none
    std::vector<std::string> reasons;
    const Candidate* chosen() const { return next < candidates.size() ? &candidates[next] : nullptr; }
  };

  Slot* slotOf(const std::string& key);
  void addCopies(const SignatureFolder& copies, bool copyForMissing);
  std::vector<std::string> reasons() const;

  std::vector<Slot> slots_;
  std::string problem_;   // of the folder
  bool present_ = false;  // the folder
  bool whole_ = true;     // all files of the folder were listed
};

}  // namespace agent
