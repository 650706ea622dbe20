#pragma once

#include <sys/stat.h>

#include <string>

#include "task/ScanPlan.h"

namespace agent {

/// Why the plan leaves a file out by its size or kind; empty when it is to be scanned. Reads the first bytes
/// of the file, when it must, without moving the descriptor's position.
std::string whyLeftOut(const ScanPlan& plan, const std::string& path, int fd, const struct stat& status);

/// The lower-case ending of a file's name behind its last dot; empty without one.
std::string endingOf(const std::string& path);

}  // namespace agent
