#pragma once

#include "store/RestoreChild.h"

namespace agent::store {

/// The whole work of the child. Reads the content (as many bytes as the file had, then "C") from the channel
/// and writes the report to it. Allocates nothing and takes no lock: the parent has other threads. The child
/// dies with the parent.
void runRestore(const RestoreJob& job, int channel, pid_t parent);

}  // namespace agent::store
