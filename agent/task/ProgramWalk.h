#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "task/RunningPrograms.h"
#include "task/Walker.h"

namespace agent {

/// Meets the file of each running program, once: what cannot be read is told to the sink, too. Read through
/// the process, so that also what is no longer on disk is met. `onlyOf`: the programs of that user's
/// processes, and each by its path with the calling thread's rights: the kernel asks for none on the way
/// through a process, and shows a thread of the agent everybody's. `share`: of the whole work.
void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink);

}  // namespace agent
