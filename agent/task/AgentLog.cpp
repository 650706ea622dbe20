#include "task/AgentLog.h"

#include <unistd.h>

#include "platform/LineLimit.h"

namespace agent {
namespace {

constexpr unsigned kLinesAMinute = 60;
const uid_t kOwnUser = geteuid();  // at the start: a walking thread has the rights of its scan's user

}  // namespace

std::optional<std::string> admitLine(uid_t user) {
  static platform::LineLimit limit(kLinesAMinute);
  return user == 0 || user == kOwnUser ? std::string() : limit.admit(user);
}

}  // namespace agent
