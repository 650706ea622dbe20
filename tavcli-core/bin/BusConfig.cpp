#include "bin/BusConfig.h"

#include "json/CppJson.h"
#include "lunet/LogLevels.h"
#include "platform/Files.h"

namespace tavcli {

namespace {

constexpr int kCompact = 1;

}  // namespace

Json::Value completeBusConfig(Json::Value file, const ContainerConfig& config) {
  const std::string logName = config.name.empty() ? "container." + config.guid : config.name;
  const std::string fileStem = config.name.empty() ? "container" : config.name;
  const std::string folder = config.logDir + "/" + logName;
  const Json::Value& level = file["log_level"];
  const int fileLevel = level.isInt() ? level.asInt() : lunet::kDefaultFileLevel;
  file["log_path"] = folder + "/" + fileStem + ".ipc.log";
  file["log_backup_path"] = folder + "/backup";
  file["runtime_path"] = config.installDir;
  file["log_level"] = static_cast<int>(lunet::busLevelOfFile(fileLevel));
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
