#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "task/RunningPrograms.h"
#include "task/Walker.h"

namespace agent {

/// Hands the file of each running program to the sink, once; also each program that cannot be read. onlyOf
/// empty: reads through the processes, so that files no longer on disk are found, too. onlyOf given: the
/// programs of that user, each by its path, with the rights of the calling thread: the kernel does not check
/// them on the way through a process. share: the part of the whole work.
void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink);

}  // namespace agent
