#include "EndpointList.h"

#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>

#include "Session.h"
#include "lunet/BusConfig.h"
#include "lunet/ListenerAt.h"
#include "platform/Text.h"
#include "platform/Users.h"

namespace lunetctl {

namespace {

/// The addresses that have a socket in the folder, in order.
std::set<std::string> addressesIn(const std::string& folder) {
  std::set<std::string> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const std::string stem = entry.path().stem();
    if (entry.path().extension() == ".sock" && lunet::formatGuid(lunet::parseGuid(stem.c_str())) == stem) {
      found.insert(stem);
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw Failure(platform::visibleText(folder) + " cannot be read: " + error.message());
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
