#pragma once

#include <dlfcn.h>

#include <string>

namespace testsupport {

/// Keeps a library loaded until this process ends. LeakSanitizer's tracer crashes over the thread storage of
/// an unloaded library.
inline void keepLoadedForLeakSanitizer([[maybe_unused]] const std::string& path) {
#ifdef TAV_SANITIZED
  dlopen(path.c_str(), RTLD_LAZY);
#endif
}

}  // namespace testsupport
