#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "task/RunningPrograms.h"
#include "task/Walker.h"

namespace agent {

/// Hands the file of each running program to the sink, and the files that its process has mapped: each once;
/// also each one that cannot be read. onlyOf empty: opens the files through their process, and so finds files
/// that are no longer on disk. onlyOf given: opens the files of that user's processes by their paths. The
/// kernel then checks the rights of the calling thread, but would not on the way through a process. share:
/// the part of the whole work.
void walkPrograms(const std::vector<RunningProgram>& programs, std::optional<uid_t> onlyOf, double share,
                  WalkSink& sink);

}  // namespace agent
