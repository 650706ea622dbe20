#pragma once

#include "store/RestoreChild.h"

namespace agent::store {

/// The child's whole work: takes the content (as many bytes as the file had, then "C") from the channel and
/// puts the report into it. Allocates nothing and takes no lock: the parent has other threads. Ends with the
/// parent.
void runRestore(const RestoreJob& job, int channel, pid_t parent);

}  // namespace agent::store
