#include "service/Callers.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

#include "platform/ProcessStat.h"
#include "platform/Users.h"
#include "task/CallerRights.h"

namespace agent {

namespace {

/// Empty when the process runs for another user by now, after the exec of a setuid program.
std::vector<gid_t> groupsOf(pid_t pid, uid_t uid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::vector<gid_t> groups;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Uid:", 0) == 0) {
      std::istringstream numbers(line.substr(4));
      uid_t real = 0;
      uid_t effective = 0;
      if (!(numbers >> real >> effective) || real != uid || effective != uid) {
        return {};
      }
    } else if (line.rfind("Groups:", 0) == 0) {
      std::istringstream numbers(line.substr(7));
      for (gid_t group = 0; numbers >> group;) {
        groups.push_back(group);
      }
    }
  }
  return groups;
}

}  // namespace

CallerId callerIdOf(const lunet::PeerIdentity& process) {
  CallerId caller;
  caller.uid = process.uid;
  caller.gid = process.gid;
  caller.pid = process.pid;
  caller.groups = groupsOf(process.pid, process.uid);
  const auto now = platform::processStat(process.pid);
  if (!now || now->startTicks != process.startTicks) {
    caller.groups.clear();  // they may be the groups of another process
  }
  return caller;
}

platform::Expected<std::optional<gid_t>> groupByName(const std::string& name) {
  const std::optional<gid_t> group = name.empty() ? std::nullopt : platform::groupId(name);
  if (!name.empty() && !group) {
    return platform::failure("there is no group " + name);
  }
  return group;
}

bool isMember(const CallerId& caller, std::optional<gid_t> group) {
  return isAdministrator(caller) ||
         (group && (caller.gid == *group ||
                    std::find(caller.groups.begin(), caller.groups.end(), *group) != caller.groups.end()));
}

}  // namespace agent
