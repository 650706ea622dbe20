#pragma once

#include <functional>

namespace agent::store {

/// Called with the name of each step that quarantine work has just finished: tests end the process there, or
/// change the world between two steps. Empty otherwise. Set while no other thread is at work.
extern std::function<void(const char* step)> stepHook;

inline void reached(const char* step) {
  if (stepHook) {
    stepHook(step);
  }
}

}  // namespace agent::store
