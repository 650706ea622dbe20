#pragma once

#include <string>
#include <vector>

/// The SCAN command's calls on the agent. Each makes one call and prints nothing when it fails: a JSON-RPC
/// failure goes to the debug log. What a scan finds does not come back here but as notifications. Main
/// thread.
class CliScanCommunication {
 public:
  /// Reads how the agent's settings want detections handled: sets handle to 1 (report only) or 2 (automatic),
  /// or leaves it. 0 when there is no agent or its answer is no JSON, else 1.
  static int get_scanconfig(int& handle);
  /// handle: 0 automatic, else report only. mode: 0 fast, 1 full, 2 custom. special: 0 strong scan, else not.
  /// 1 when the agent accepted the task.
  static int action_startscan(unsigned handle, unsigned mode, const std::vector<std::string>& paths,
                              unsigned special);
  /// Prints the running scan tasks. 1 when the list was read.
  static int action_showscan();
  /// action: 1 stop, 2 pause, 3 resume; others send nothing. 1 when the call was made.
  static int action_ctlscan(const std::string& token_id, unsigned action);

  /// The "scan_type" of a start request.
  static int scanType(unsigned mode, unsigned special);
};
