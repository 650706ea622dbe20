#pragma once

#include <string>

namespace testsupport {

/// "SCAN START HANDLE" -> "ScanStartHandle", as a name of a test.
inline std::string testNameOf(const std::string& path) {
  std::string name;
  bool upper = true;
  for (const char c : path) {
    if (c == ' ' || c == '_') {
      upper = true;
      continue;
    }
    name += upper ? c : static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    upper = false;
  }
  return name;
}

}  // namespace testsupport
