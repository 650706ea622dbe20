#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace agent {

/// How a setting of the system names programs and libraries.
enum class SettingKind {
  kNone,       ///< not at all
  kLines,      ///< anywhere in a line: crontab, PAM, sudoers, ld.so.preload, passwd
  kUnit,       ///< in the lines "Exec…=": systemd units and desktop entries
  kUserTables  ///< as kLines, in a file with the name of the user whom it belongs to
};

struct NamedPaths {
  std::vector<std::string> paths;  ///< each once
  bool more = false;               ///< the text has more than fit
};

/// The paths that a text of settings may name. The reading is generous: a path need not exist. home: stands
/// for "~", "$HOME" and "%h", and begins relative paths; empty: such paths are left out.
NamedPaths programsNamedIn(SettingKind kind, std::string_view text, const std::string& home);

}  // namespace agent
