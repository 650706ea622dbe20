#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Expected.h"
#include "task/EncounteredFile.h"

namespace agent {

/// A home folder, and the user with whose rights files are opened there.
struct HomeFolder {
  std::string path;
  std::string user;
  uid_t uid = 0;
  gid_t gid = 0;
};

/// The existing home folders of the user database, each once. Any thread.
std::vector<HomeFolder> homeFolders();
/// Of any user, whether the folder exists or not; nothing for an unknown user. Any thread.
std::optional<HomeFolder> homeFolderOf(const std::string& user);
/// The home folder that holds `path`, the deepest one; null: none.
const HomeFolder* homeOf(const std::string& path, const std::vector<HomeFolder>& homes);
/// The path below the home folder that holds it.
std::string belowHome(const HomeFolder& home, const std::string& path);

/// Opens what the agent looks for on its own and what a user could exchange for a link. One thread.
class HomeAccess {
 public:
  /// keepRights: the thread has the rights of a caller, and keeps them. Else an agent of root's takes the
  /// rights of the home folder's user for each opening.
  explicit HomeAccess(bool keepRights) : keepRights_(keepRights) {}

  /// Opens a file or folder below the home folder. Links are followed while they stay below the folder; a
  /// link that leads out comes back as a link, without a descriptor. Nothing: no such entry, or one that the
  /// caller cannot see.
  platform::Expected<std::optional<EncounteredFile>> open(const HomeFolder& home,
                                                          const std::string& below) const;
  /// Opens any path with the rights of the home folder's user. Nothing: as open().
  platform::Expected<std::optional<EncounteredFile>> openAny(const HomeFolder& home,
                                                             const std::string& path) const;

 private:
  template <class Open>
  platform::Expected<std::optional<EncounteredFile>> asUser(const HomeFolder& home, const Open& open) const;

  const bool keepRights_;
};

}  // namespace agent
