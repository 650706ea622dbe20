#include <algorithm>
#include <string>
#include <vector>

#include "platform/Files.h"

namespace utils {

namespace {

std::string normalised(const std::string& path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::vector<std::string> kept;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t slash = std::min(path.find('/', begin), path.size());
    const std::string part = path.substr(begin, slash - begin);
    begin = slash + 1;
    if (part.empty() || part == ".") {
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
    text += (i == 0 ? "" : "/") + kept[i];
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
