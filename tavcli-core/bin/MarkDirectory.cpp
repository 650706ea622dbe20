#include "bin/MarkDirectory.h"

#include "lunet/ClientLibrary.h"
#include "platform/CGlobalTag.h"
#include "platform/Files.h"

namespace tavcli {

std::string markDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (CFileInfo(busConfigFile).exists() && !CDir::whyUnsafe(busConfigFile).empty()) {
    return "";  // whoever may write it must not choose where root makes folders
  }
  const std::string text = CFile::readAll(busConfigFile).value_or("");
  const std::string directory = utils::FormatFilePath(lunet::socketDirectory(installDir, text));
  return CDir::whyUnsafe(CDir::nearestExisting(directory)).empty() ? directory : "";
}

void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (std::string directory = markDirectory(installDir, busConfigFile); !directory.empty()) {
    CGlobalTag::TagConfig::setUserDirectory(std::move(directory));
  }
}

}  // namespace tavcli
