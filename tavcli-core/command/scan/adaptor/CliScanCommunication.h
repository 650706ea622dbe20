#pragma once

#include <string>
#include <vector>

#include "json/Values.h"

/// The SCAN command's requests to the agent. Each request makes one call and prints nothing on failure;
/// failures go to the debug log. Detections come as notifications, not as results. Main thread.
class CliScanCommunication {
 public:
  /// Reads the handling of detections from the agent's settings. Sets `handle` to json::toFixHandle, or keeps
  /// `handle` when the settings hold no handling. Returns 0 without an agent and for an answer that is no
  /// JSON, otherwise 1.
  static int get_scanconfig(int& handle);
  /// mode: the number of a json::ScanMode. special: kStrongScanOff, or any other number for a strong scan.
  /// Returns 1 when the agent accepts the task.
  static int action_startscan(json::Handling handling, unsigned mode, const std::vector<std::string>& paths,
                              unsigned special);
  /// Prints the running scan tasks. Returns 1 when the agent gave a list.
  static int action_showscan();
  /// action: the number of a json::ControlAction; other numbers send nothing. Returns 1 when the call was
  /// made.
  static int action_ctlscan(const std::string& token_id, unsigned action);

  static constexpr unsigned kStrongScanOff = 1;
};
