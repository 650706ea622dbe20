#include "service/Tree.h"

#include <cerrno>

#include "json/CppJson.h"
#include "lunet/ClientLibrary.h"
#include "lunet/LogLevels.h"
#include "platform/Files.h"

namespace agent {

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
  config["log_level"] = static_cast<int>(
      lunet::busLevelOfFile(CppJson::readInt(config, "log_level", lunet::kDefaultFileLevel)));
  return CppJson::WriteJsonToString(config, settings->clientConfig, 1);
}

}  // namespace agent
