#pragma once

#include <optional>

#include "lunet/Lunet.h"
#include "platform/Expected.h"
#include "store/StoreTypes.h"

namespace agent {

/// The rights of the process at the other end of the bus, as the kernel reports them. The supplementary
/// groups come from /proc; a process that has ended has none.
CallerId callerIdOf(const lunet::PeerIdentity& process);

/// The group of that name; nothing for an empty name. Fails for an unknown group.
platform::Expected<std::optional<gid_t>> groupByName(const std::string& name);

/// True for root, the agent's own user and members of the group.
bool isMember(const CallerId& caller, std::optional<gid_t> group);

}  // namespace agent
