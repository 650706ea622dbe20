#pragma once

#include <string>
#include <vector>

#include "json/Values.h"

/// The SCAN command's calls on the agent. Each makes one call and prints nothing when it fails: a JSON-RPC
/// failure goes to the debug log. What a scan finds does not come back here but as notifications. Main
/// thread.
class CliScanCommunication {
 public:
  /// Reads how the agent's settings want detections handled: sets handle to json::toFixHandle, or leaves it.
  /// 0 when there is no agent or its answer is no JSON, else 1.
  static int get_scanconfig(int& handle);
  /// mode: the number of a json::ScanMode. special: kStrongScanOff, or any other number for a strong scan.
  /// 1 when the agent accepted the task.
  static int action_startscan(json::Handling handling, unsigned mode, const std::vector<std::string>& paths,
                              unsigned special);
  /// Prints the running scan tasks. 1 when the list was read.
  static int action_showscan();
  /// action: the number of a json::ControlAction; others send nothing. 1 when the call was made.
  static int action_ctlscan(const std::string& token_id, unsigned action);

  static constexpr unsigned kStrongScanOff = 1;

  /// The "scan_type" of a start request; 0 for an unknown mode.
  static int scanType(unsigned mode, unsigned special);
};
