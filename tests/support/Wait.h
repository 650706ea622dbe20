#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

/// Checks the condition every few milliseconds until the condition holds or the limit is reached. Returns the
/// condition's last value. Tests wait for conditions, never for time.
template <class Condition>
bool waitFor(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace testsupport
