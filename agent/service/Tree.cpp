#include "service/Tree.h"

#include <cerrno>

#include "json/CppJson.h"
#include "lunet/ClientLibrary.h"
#include "platform/Files.h"

namespace agent {

namespace {

/// The file counts from the most verbose level upwards, the library the other way round.
constexpr int kLibraryLevels[] = {-1, 3, 2, 1, 0, 0, 0};
constexpr int kDefaultLevel = 3;

int libraryLevel(int level) {
  return level >= 0 && level < static_cast<int>(std::size(kLibraryLevels)) ? kLibraryLevels[level] : -1;
}

}  // namespace

bool readBusSettings(const Tree& tree, const std::string& logName, BusSettings* settings, std::string* why) {
  std::string unsafe;
  const std::string file =
      CFileInfo(tree.busConfig()).exists() ? CDir::resolveSafe(tree.busConfig(), &unsafe) : tree.busConfig();
  if (file.empty()) {
    *why = "the bus configuration is not used: " + unsafe;
    return false;
  }
  int error = 0;
  const std::optional<std::string> text = CFile::readAll(file, &error);
  settings->fileText = text ? *text : "{}";
  Json::Value config;
  if ((!text && error != ENOENT) || !CppJson::LoadJsonString(settings->fileText, config) ||
      !config.isObject()) {
    *why = tree.busConfig() + " cannot be read as a JSON object";
    return false;
  }
  settings->group = CppJson::readString(config, "group", "");
  settings->socketDir = lunet::socketDirectory(tree.root, settings->fileText);
  config["runtime_path"] = tree.root;
  config["log_path"] = tree.log() + "/" + logName + "/" + logName + ".ipc.log";
  config["log_backup_path"] = tree.log() + "/" + logName + "/backup";
  config["log_level"] = libraryLevel(CppJson::readInt(config, "log_level", kDefaultLevel));
  return CppJson::WriteJsonToString(config, settings->clientConfig, 1);
}

}  // namespace agent
