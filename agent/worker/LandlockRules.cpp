#include "worker/LandlockRules.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Descriptor.h"

namespace agent {
namespace {

// The accesses of the first version, which every later version knows.
constexpr std::uint64_t kAll = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
constexpr std::uint64_t kReferVersion = 2;
constexpr std::uint64_t kRefer = LANDLOCK_ACCESS_FS_MAKE_SYM << 1;
constexpr std::uint64_t kTruncateVersion = 3;
constexpr std::uint64_t kTruncate = LANDLOCK_ACCESS_FS_MAKE_SYM << 2;

constexpr std::uint64_t kOfTheFolder = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE |
                                       LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                                       LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                       LANDLOCK_ACCESS_FS_REMOVE_DIR | kRefer | kTruncate;

long version() {
  return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

}  // namespace

bool landlockIsThere() {
  return version() > 0;
}

int restrictToFolder(const std::string& folder) {
  const long known = version();
  if (known <= 0) {
    return errno;
  }
  landlock_ruleset_attr handled{};
  handled.handled_access_fs = kAll | (static_cast<std::uint64_t>(known) >= kReferVersion ? kRefer : 0) |
                              (static_cast<std::uint64_t>(known) >= kTruncateVersion ? kTruncate : 0);
  const platform::Descriptor rules(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0)));
  const platform::Descriptor parent(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rules || !parent) {
    return errno;
  }
  landlock_path_beneath_attr below{};
  below.allowed_access = kOfTheFolder & handled.handled_access_fs;
  below.parent_fd = parent.get();
  if (syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &below, 0) != 0 ||
      syscall(SYS_landlock_restrict_self, rules.get(), 0) != 0) {
    return errno;
  }
  return 0;
}

}  // namespace agent
