#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// kLeftOut: the system's database is there and did not load.
enum class SystemDatabase : std::uint8_t { kNone, kInForce, kLeftOut };

/// The signatures in use.
struct SignatureState {
  bool loading = false;  ///< a load is running; the other members are those of the load before
  bool loaded = false;
  SystemDatabase system = SystemDatabase::kNone;
  std::string
      version;  ///< part of a cache key; changes with the content of any signature file; empty: not loaded
  std::string detail;       ///< one line: why nothing is loaded, or which folders are loaded and which not
  unsigned long count = 0;  ///< of signatures in use
};

}  // namespace agent
