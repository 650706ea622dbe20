#pragma once

#include <string>

/// The CONFIG command's requests to the agent: the four displays of the settings, and the changes. Failures
/// go to the debug log. Main thread.
class CliConfigCommunication {
 public:
  /// Each prints one document of settings. Returns 0 and prints nothing without a link to the agent, and for
  /// a document that cannot be read; otherwise 1, even after a failed call.
  static int action_scanconfig_show();
  static int action_isolationconfig_show();
  static int action_engineconfig_show();
  static int action_realprotectconfig_show();

  /// Each sends a change: the JSON text of the changed sections and keys. Returns 1 when the agent accepts
  /// the change, otherwise 0.
  static int action_avconfig_scan_set(const std::string& change);
  static int action_avconfig_realprotect_set(const std::string& change);
  static int action_avconfig_engines_set(const std::string& change);
  /// Resource limits are accepted and not sent. Always 1.
  static int action_avconfig_common_set(const std::string& change);
};
