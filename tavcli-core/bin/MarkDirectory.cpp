#include "bin/MarkDirectory.h"

#include "lunet/ClientLibrary.h"
#include "platform/CGlobalTag.h"
#include "platform/Files.h"

namespace tavcli {

std::string markDirectory(const std::string& installDir, const std::string& busConfigFile) {
  const bool exists = CFileInfo(busConfigFile).exists();
  const std::string file = exists ? CDir::resolveSafe(busConfigFile) : "";
  if (exists && file.empty()) {
    return "";  // whoever may write it must not choose where root makes folders
  }
  const std::string text = exists ? CFile::readAll(file).value_or("") : "";
  return CDir::resolveForMaking(lunet::socketDirectory(installDir, text));
}

void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (std::string directory = markDirectory(installDir, busConfigFile); !directory.empty()) {
    CGlobalTag::TagConfig::setUserDirectory(std::move(directory));
  }
}

}  // namespace tavcli
