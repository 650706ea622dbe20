#include "bin/BusConfig.h"

#include "json/CppJson.h"
#include "platform/Files.h"

namespace tavcli {

namespace {

constexpr int kDefaultFileLevel = 3;
constexpr int kBusLogNothing = -1;
constexpr int kCompact = 1;
/// Row: the file's level. Value: the bus library's.
constexpr int kBusLevels[] = {kBusLogNothing, 3, 2, 1, 0, 0, 0};

}  // namespace

int busLogLevel(int fileLevel) {
  const int count = static_cast<int>(std::size(kBusLevels));
  return fileLevel >= 0 && fileLevel < count ? kBusLevels[fileLevel] : kBusLogNothing;
}

Json::Value completeBusConfig(Json::Value file, const ContainerConfig& config) {
  const std::string logName = config.name.empty() ? "container." + config.guid : config.name;
  const std::string fileStem = config.name.empty() ? "container" : config.name;
  const std::string folder = config.logDir + "/" + logName;
  const Json::Value& level = file["log_level"];
  const int fileLevel = level.isInt() ? level.asInt() : kDefaultFileLevel;
  file["log_path"] = folder + "/" + fileStem + ".ipc.log";
  file["log_backup_path"] = folder + "/backup";
  file["runtime_path"] = config.installDir;
  file["log_level"] = busLogLevel(fileLevel);
  return file;
}

std::optional<std::string> readBusConfig(const ContainerConfig& config) {
  const std::optional<std::string> text = CFile::readAll(config.busConfigFile);
  Json::Value file;
  if (!text || !CppJson::LoadJsonString(*text, file) || !file.isObject()) {
    return std::nullopt;
  }
  std::string compact;
  if (!CppJson::WriteJsonToString(completeBusConfig(std::move(file), config), compact, kCompact)) {
    return std::nullopt;
  }
  return compact;
}

}  // namespace tavcli
