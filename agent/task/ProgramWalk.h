#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "task/RunningPrograms.h"
#include "task/Walker.h"

namespace agent {

/// Hands the file of each running program to the sink, once; also each program that cannot be read. onlyOf
/// empty: opens each program through its process, and so finds files that are no longer on disk. onlyOf
/// given: opens the programs of that user by their paths. The kernel then checks the rights of the calling
/// thread, but would not on the way through a process. share: the part of the whole work.
void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink);

}  // namespace agent
