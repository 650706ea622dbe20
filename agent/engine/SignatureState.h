#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// What became of the system's database: there is none, it is in force, or it is there and did not load.
enum class SystemDatabase : std::uint8_t { kNone, kInForce, kLeftOut };

/// What the engine knows. version changes whenever the content of any signature file does.
struct SignatureState {
  bool loading = false;  ///< a load is under way; the rest tells of the one before
  bool loaded = false;
  SystemDatabase system = SystemDatabase::kNone;
  std::string version;      ///< part of a cache key; empty while nothing is loaded
  std::string detail;       ///< one line: why not loaded, or what was and what was not
  unsigned long count = 0;  ///< signatures in force
};

}  // namespace agent
