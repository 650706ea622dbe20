#pragma once

#include <optional>

#include "lunet/Lunet.h"
#include "store/Store.h"

namespace agent {

/// The rights of a process at the other end of the bus, on the kernel's word. Supplementary groups are read
/// from the process itself; none when it is gone by now.
CallerId callerIdOf(const lunet::PeerIdentity& process);

/// The group that may use the bus and change what the agent keeps; none when the configuration names none.
/// An unknown group is none, and said in *why.
std::optional<gid_t> groupByName(const std::string& name, std::string* why);

/// Who may change settings, the trust and reject lists, the quarantine and the cache: root, the agent's own
/// user, and members of the configured group.
bool mayChange(const CallerId& caller, std::optional<gid_t> group);

}  // namespace agent
