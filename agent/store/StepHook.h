#pragma once

#include <functional>

namespace agent::store {

/// Called with the name of each finished step of quarantine work. Tests end the process there, or change
/// files between two steps. Empty outside tests. Set while no other thread works.
extern std::function<void(const char* step)> stepHook;

inline void reached(const char* step) {
  if (stepHook) {
    stepHook(step);
  }
}

}  // namespace agent::store
