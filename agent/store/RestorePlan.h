#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Posix.h"
#include "store/Regions.h"

namespace agent::store {

/// The target of a restore, and the paths to trust afterwards. Recorded before the restore begins, so that a
/// start after a crash can settle the restore.
struct RestorePlan {
  std::string folder, name;          ///< bytes
  std::vector<std::string> trusted;  ///< paths to trust after the restore
  uid_t caller = 0;

  std::string toText() const;
  static std::optional<RestorePlan> fromText(const std::string& text);
  std::string path() const { return platform::joinPath(folder, name); }
  /// Adds the paths to the trust region.
  platform::Expected<void> applyTrust(Regions& regions) const;
};

}  // namespace agent::store
