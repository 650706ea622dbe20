#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The ISOLATION command's requests to the agent. Nothing but the list is printed; what fails is in the debug
/// log. Main thread.
class CliIsolationCommunication {
 public:
  /// Prints what the quarantine holds. 1 when the list was printed, else 0.
  static int action_isolationreport();
  /// notrust: 0 restores and trusts, else restores only. 1 when the agent answered that all went well.
  static int action_isolationrestore(const std::vector<std::string>& item_ids, std::int32_t notrust);
};
