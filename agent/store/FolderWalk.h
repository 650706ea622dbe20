#pragma once

#include <cstddef>
#include <string>

#include "platform/Expected.h"
#include "platform/Posix.h"

namespace agent::store {

/// Walks from / to the folder of an absolute path, component by component. Refuses links, "." and "..".
/// Returns an O_PATH descriptor or a negative errno value (ELOOP: a link). *failedEnd is then the length of
/// the path up to the failed component. Allocates nothing: safe between fork and exec.
int walkToFolder(const char* path, std::size_t* failedEnd);

/// The same walk for other callers.
platform::Expected<platform::Descriptor> openFolder(const std::string& path);
/// The reason of a failed walk: the component and the error.
std::string walkFailure(const std::string& path, int error, std::size_t failedEnd);

}  // namespace agent::store
