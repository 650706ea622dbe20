#pragma once

#include <optional>
#include <string>
#include <vector>

#include "store/Regions.h"

namespace agent::store {

/// Where an item goes and what follows. Written down before the restore begins, so that a start after a crash
/// can settle it.
struct RestorePlan {
  std::string folder, name;          ///< bytes
  std::vector<std::string> trusted;  ///< paths to trust when it is done
  uid_t caller = 0;

  std::string toText() const;
  static std::optional<RestorePlan> fromText(const std::string& text);
  std::string path() const { return folder == "/" ? "/" + name : folder + "/" + name; }
  /// Adds the paths to the trust region.
  platform::Expected<void> applyTrust(Regions& regions) const;
};

}  // namespace agent::store
