#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "engine/SignatureState.h"
#include "platform/Expected.h"

namespace agent {

/// The copy of the system's signature files as they last loaded, for a start that finds less. The agent reads
/// other users' files here with its own rights: no link is followed, and only content that the confined
/// processes have loaded becomes a copy, told by its SHA-256. A copy is replaced by temporary file, sync and
/// rename. One thread.
class SignatureCopy {
 public:
  struct Limits {
    std::uint64_t mostBytes = 1ULL << 30;   ///< of all copies
    std::uint64_t freeBytes = 64ULL << 20;  ///< stay free on the file system
  };
  explicit SignatureCopy(std::string folder) : SignatureCopy(std::move(folder), Limits{}) {}
  SignatureCopy(std::string folder, Limits limits) : folder_(std::move(folder)), limits_(limits) {}

  /// Makes the folder hold the files of that load and the copies that are in use; other copies go. A failure
  /// changes nothing. ended: the agent ends.
  platform::Expected<void> update(const std::string& systemFolder, const SignatureState& loaded,
                                  const std::atomic<bool>& ended) const;

 private:
  const std::string folder_;
  const Limits limits_;
};

}  // namespace agent
