#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The TRUSTREGION command's requests to the agent. Only the lists are printed; failures go to the debug log.
/// Main thread.
class CliTrustRegionCommunication {
 public:
  /// Prints the trust list, then the reject list. Returns 1 when both lists were printed, otherwise 0.
  static int action_trustregionreport();
  /// action, item_type: the numbers of a json::RegionAction and a json::RegionItemType. Returns 1 when the
  /// agent accepts the change, otherwise 0.
  static int action_trustregionmodify(std::int32_t action, std::int32_t item_type,
                                      const std::vector<std::string>& items);
};
