#pragma once

#include <cstddef>
#include <string>

#include "platform/Posix.h"

namespace agent::store {

/// Walks from / to the folder of an absolute path, component by component, following no link and taking no
/// "." or "..". Returns an O_PATH descriptor, or a negative errno value (ELOOP: a link stood in the way) with
/// *failedEnd the length of the path up to the component that failed. Allocates nothing: safe between fork
/// and exec.
int walkToFolder(const char* path, std::size_t* failedEnd);

/// The same for other callers. Throws StoreError that says which component failed and why.
platform::Descriptor openFolder(const std::string& path);
/// What openFolder would say.
std::string whyNoFolder(const std::string& path, int error, std::size_t failedEnd);

}  // namespace agent::store
