#pragma once

#include <chrono>
#include <thread>

namespace testsupport {

/// Waits until the condition holds, looking every few milliseconds, up to the limit. The result is the
/// condition's last value: tests wait for what they expect, never for time.
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
