#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The ISOLATION command's requests to the agent. Only the list is printed; failures go to the debug log.
/// Main thread.
class CliIsolationCommunication {
 public:
  /// Prints the items of the quarantine. Returns 1 when the list was printed, otherwise 0.
  static int action_isolationreport();
  /// notrust: 0 restores and trusts, otherwise restores only. Returns 1 when the agent reports success.
  static int action_isolationrestore(const std::vector<std::string>& item_ids, std::int32_t notrust);
};
