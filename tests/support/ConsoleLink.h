#pragma once

#include <cstdint>
#include <string>

#include "lunet/BusClient.h"

namespace testsupport {

/// The console's end of the agent link inside the test's own process. Opens an endpoint on the bus of a
/// private tree, and fills the process-wide holders. One object at a time.
class ConsoleLink {
 public:
  /// timeoutMs: of each call. Throws std::runtime_error when the console cannot join the bus.
  explicit ConsoleLink(const std::string& runtimePath, std::uint32_t timeoutMs = 30000);
  ~ConsoleLink();
  ConsoleLink(const ConsoleLink&) = delete;
  ConsoleLink& operator=(const ConsoleLink&) = delete;

  /// For the next calls; not during a call.
  void setTimeout(std::uint32_t timeoutMs);

 private:
  lunet::BusClient bus_;
};

}  // namespace testsupport
