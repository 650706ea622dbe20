#pragma once

#include <string>

/// The CONFIG command's requests to the agent: the four displays of its settings, and the changes. What fails
/// is in the debug log. Main thread.
class CliConfigCommunication {
 public:
  /// Each prints one document of settings. 0 when there is no way to the agent or the document cannot be
  /// read, and then nothing is printed; else 1, also behind a failed call.
  static int action_scanconfig_show();
  static int action_isolationconfig_show();
  static int action_engineconfig_show();
  static int action_realprotectconfig_show();

  /// Each sends a change: JSON text of the sections and keys that change, nothing else. 1 when the agent took
  /// it, else 0.
  static int action_avconfig_scan_set(const std::string& change);
  static int action_avconfig_realprotect_set(const std::string& change);
  static int action_avconfig_engines_set(const std::string& change);
  /// Resource limits are accepted and go nowhere. Always 1.
  static int action_avconfig_common_set(const std::string& change);
};
