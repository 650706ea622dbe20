#include "platform/Users.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace platform {

namespace {

/// Looks an entry up with a buffer that grows until the entry fits. Null for an unknown entry.
template <class Entry, class LookUp>
const Entry* find(std::vector<char>& buffer, Entry& entry, const LookUp& lookUp) {
  Entry* found = nullptr;
  buffer.resize(4096);
  while (lookUp(&entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return found;
}

const passwd* findUser(uid_t uid, std::vector<char>& buffer, passwd& entry) {
  return find(buffer, entry, [uid](passwd* into, char* text, std::size_t size, passwd** found) {
    return getpwuid_r(uid, into, text, size, found);
  });
}

}  // namespace

std::optional<gid_t> groupId(const std::string& name) {
  std::vector<char> buffer;
  group entry{};
  const group* const found =
      find(buffer, entry, [&name](group* into, char* text, std::size_t size, group** result) {
        return getgrnam_r(name.c_str(), into, text, size, result);
      });
  return found != nullptr ? std::optional<gid_t>(found->gr_gid) : std::nullopt;
}

std::string userName(uid_t uid) {
  std::vector<char> buffer;
  passwd entry{};
  const passwd* const found = findUser(uid, buffer, entry);
  return found != nullptr ? found->pw_name : std::to_string(uid);
}

std::string homeFolder(uid_t uid) {
  std::vector<char> buffer;
  passwd entry{};
  const passwd* const found = findUser(uid, buffer, entry);
  return found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/' ? found->pw_dir : "";
}

}  // namespace platform
