#pragma once

#include <string>

namespace agent {

/// What the engine knows. version changes whenever the content of any signature file does.
struct SignatureState {
  bool loading = false;  ///< a load is under way; the rest tells of the one before
  bool loaded = false;
  std::string version;      ///< part of a cache key; empty while nothing is loaded
  std::string detail;       ///< one line: why not loaded, or what was and what was not
  unsigned long count = 0;  ///< signatures in force
};

}  // namespace agent
