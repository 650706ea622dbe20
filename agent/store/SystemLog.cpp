#include "store/SystemLog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace agent::store {
namespace {

constexpr int kPrivateFacility = 10 << 3;  // security messages that not everybody may read

/// "Jan 31 08:05:09" in local time, as syslog programs expect.
std::string timeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%b %e %H:%M:%S", &local)};
}

}  // namespace

void SystemLog::send(Severity severity, const std::string& line) {
  sockaddr_un address{};
  if (path_.empty() || path_.size() >= sizeof(address.sun_path)) {
    return;
  }
  if (!socket_) {
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  }
  address.sun_family = AF_UNIX;
  std::copy(path_.begin(), path_.end(), address.sun_path);
  const std::string text = "<" + std::to_string(kPrivateFacility + static_cast<int>(severity)) + ">" +
                           timeStamp() + " tavagentd[" + std::to_string(::getpid()) + "]: " + line;
  (void)::sendto(socket_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace agent::store
