#pragma once

#include <string>

namespace agent {

/// Whether the kernel knows Landlock; false with errno set.
bool landlockIsThere();

/// From now on this process opens, makes and removes files below the folder only. Descriptors that are open
/// already stay as they are. 0 or an errno value.
int restrictToFolder(const std::string& folder);

}  // namespace agent
