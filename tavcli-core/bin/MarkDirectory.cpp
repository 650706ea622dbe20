#include "bin/MarkDirectory.h"

#include <filesystem>

#include "lunet/ClientLibrary.h"
#include "platform/CGlobalTag.h"
#include "platform/Files.h"

namespace tavcli {

namespace {

/// The folder itself, or the nearest one above it that stands.
std::string nearestExisting(const std::string& directory) {
  std::filesystem::path path = directory;
  std::error_code error;
  while (path.has_relative_path() && !std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
    path = path.parent_path();
  }
  return path.string();
}

}  // namespace

std::string markDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (CFileInfo(busConfigFile).exists() && !CDir::whyUnsafe(busConfigFile).empty()) {
    return "";  // whoever may write it must not choose where root makes folders
  }
  const std::string text = CFile::readAll(busConfigFile).value_or("");
  const std::string directory = utils::FormatFilePath(lunet::socketDirectory(installDir, text));
  return CDir::whyUnsafe(nearestExisting(directory)).empty() ? directory : "";
}

void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (std::string directory = markDirectory(installDir, busConfigFile); !directory.empty()) {
    CGlobalTag::TagConfig::setUserDirectory(std::move(directory));
  }
}

}  // namespace tavcli
