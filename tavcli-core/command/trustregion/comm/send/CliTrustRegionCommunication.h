#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The TRUSTREGION command's requests to the agent. Nothing but the lists is printed; what fails is in the
/// debug log. Main thread.
class CliTrustRegionCommunication {
 public:
  /// Prints the trust list, then the reject list. 1 when both were printed to the end, else 0.
  static int action_trustregionreport();
  /// action, item_type: the numbers of a json::RegionAction and a json::RegionItemType. 1 when the agent took
  /// the change, else 0.
  static int action_trustregionmodify(std::int32_t action, std::int32_t item_type,
                                      const std::vector<std::string>& items);
};
