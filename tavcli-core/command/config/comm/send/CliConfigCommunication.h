#pragma once

#include <string>

/// The CONFIG command's requests to the agent: the four displays of the settings, and the changes. Failures
/// go to the debug log. Main thread.
class CliConfigCommunication {
 public:
  /// These functions print one document of settings each. Without a link to the agent, and for a document
  /// that cannot be read, they print nothing and return 0. Otherwise they return 1, even after a failed call.
  static int action_scanconfig_show();
  static int action_isolationconfig_show();
  static int action_engineconfig_show();
  static int action_realprotectconfig_show();

  /// These functions send a change: the JSON text of the changed sections and keys. They return 1 when the
  /// agent accepts the change, otherwise 0.
  static int action_avconfig_scan_set(const std::string& change);
  static int action_avconfig_realprotect_set(const std::string& change);
  static int action_avconfig_engines_set(const std::string& change);
  /// Accepts resource limits and sends nothing. Returns 1.
  static int action_avconfig_common_set(const std::string& change);
};
