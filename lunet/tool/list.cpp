#include "list.h"

#include <dirent.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "Session.h"
#include "lunet/BusConfig.h"
#include "lunet/ListenerAt.h"
#include "platform/Posix.h"
#include "platform/Text.h"
#include "platform/Users.h"

namespace lunetctl {

namespace {

constexpr const char* kSocketSuffix = ".sock";

/// The addresses that have a socket in the folder, in order.
std::set<std::string> addressesIn(const std::string& folder) {
  std::set<std::string> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
  if (!entries && errno != ENOENT) {
    throw Failure(platform::visibleText(folder) + " cannot be read: " + platform::errnoText(errno));
  }
  while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name.ends_with(kSocketSuffix)) {
      const std::string stem = name.substr(0, name.size() - std::strlen(kSocketSuffix));
      if (lunet::formatGuid(lunet::parseGuid(stem.c_str())) == stem) {
        found.insert(stem);
      }
    }
  }
  return found;
}

}  // namespace

void listEndpoints(const std::string& runtime) {
  const std::string folder = lunet::socketDirectory(runtime, readConfig(runtime));
  for (const std::string& address : addressesIn(folder)) {
    if (const auto listener = lunet::listenerAt(folder, lunet::parseGuid(address.c_str()))) {
      std::printf("%s  %d  %s\n", address.c_str(), listener->pid,
                  platform::visibleText(platform::userName(listener->uid)).c_str());
    }
  }
}

}  // namespace lunetctl
