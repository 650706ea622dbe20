#include <sys/stat.h>

#include <utility>

#include "platform/Files.h"

namespace {

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

}  // namespace

CFileInfo::CFileInfo(std::string path) : path_(std::move(path)) {}

bool CFileInfo::exists() const {
  return modeOf(path_) != 0;
}
bool CFileInfo::isFile() const {
  return S_ISREG(modeOf(path_));
}
bool CFileInfo::isDir() const {
  return S_ISDIR(modeOf(path_));
}

std::string CFileInfo::fileName() const {
  const std::size_t end = path_.find_last_not_of('/');
  if (end == std::string::npos) {
    return path_.empty() ? "" : "/";
  }
  const std::size_t slash = path_.rfind('/', end);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path_.substr(begin, end - begin + 1);
}
