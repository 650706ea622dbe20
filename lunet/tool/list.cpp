#include "list.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "Session.h"
#include "lunet/ClientLibrary.h"
#include "platform/Descriptor.h"
#include "platform/Text.h"

namespace lunetctl {

namespace {

constexpr const char* kSocketSuffix = ".sock";

/// Who listens there; pid 0 when nobody does.
ucred listenerAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ucred listener{};
  socklen_t length = sizeof listener;
  if (path.size() >= sizeof address.sun_path) {
    return {};
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const platform::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &listener, &length) != 0) {
    return {};
  }
  return listener;
}

std::string socketPath(const std::string& folder, const std::string& address) {
  return folder + "/" + address + kSocketSuffix;
}

std::string userName(uid_t uid) {
  const passwd* entry = getpwuid(uid);
  return entry != nullptr ? platform::visibleText(entry->pw_name) : std::to_string(uid);
}

/// The addresses that have a socket in the folder, in order.
std::set<std::string> addressesIn(const std::string& folder) {
  std::set<std::string> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
  if (!entries && errno != ENOENT) {
    throw Failure(platform::visibleText(folder) + " cannot be read: " + std::strerror(errno));
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
    const ucred listener = listenerAt(socketPath(folder, address));
    if (listener.pid != 0) {
      std::printf("%s  %d  %s\n", address.c_str(), listener.pid, userName(listener.uid).c_str());
    }
  }
}

}  // namespace lunetctl
