#include <string>
#include <vector>

#include "platform/Files.h"
#include "platform/Text.h"

namespace utils {

namespace {

std::string normalised(const std::string& path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::vector<std::string_view> kept;
  for (const std::string_view part : CStr::split(path, '/')) {
    if (part == ".") {
      continue;
    }
    const bool climbs = part == "..";
    if (climbs && !kept.empty() && kept.back() != "..") {
      kept.pop_back();
    } else if (!climbs || !absolute) {
      kept.push_back(part);
    }
  }
  std::string text = absolute ? "/" : "";
  for (std::size_t i = 0; i < kept.size(); ++i) {
    text.append(i == 0 ? "" : "/").append(kept[i]);
  }
  return text;
}

}  // namespace

std::string FormatDir(const std::string& path, bool withSeparator) {
  std::string text = normalised(path);
  if (text.empty()) {
    text = ".";
  }
  if (withSeparator && text.back() != '/') {
    text += '/';
  }
  return text;
}

std::string FormatFilePath(const std::string& path) {
  return normalised(path);
}

}  // namespace utils
