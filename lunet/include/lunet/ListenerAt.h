#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "lunet/Guid.h"

namespace lunet {

/// The process that listens at an address, as the kernel names it.
struct Listener {
  pid_t pid = 0;  ///< at least 1
  uid_t uid = static_cast<uid_t>(-1);
  bool trusted = false;  ///< root, this process's own user, or the owner of the socket folder
};

/// Nothing when no process listens there, or when the kernel does not name it.
std::optional<Listener> listenerAt(const std::string& socketDirectory, const Guid& address);

}  // namespace lunet
