#include "lunet/BusConfig.h"

#include <cerrno>
#include <optional>

#include "json/CppJson.h"
#include "lunet/LogLevels.h"
#include "platform/Files.h"
#include "platform/Posix.h"

namespace lunet {

namespace {

constexpr const char* kDefaultFolder = "run/lunet";

}  // namespace

tl::expected<Json::Value, BusConfigFailure> readBusConfig(const std::string& path) {
  using Kind = BusConfigFailure::Kind;
  const auto failed = [](Kind kind, std::string reason) {
    return tl::unexpected(BusConfigFailure{kind, std::move(reason)});
  };
  const platform::Expected<std::string> safe = CFileInfo(path).exists() ? CDir::resolveSafe(path) : path;
  if (!safe) {
    return failed(Kind::kUnsafe, safe.error());
  }
  const auto text = CFile::readAll(*safe);
  if (!text) {
    return failed(text.error() == ENOENT ? Kind::kMissing : Kind::kUnreadable,
                  platform::errnoText(text.error()));
  }
  Json::Value config;
  if (!CppJson::LoadJsonString(*text, config) || !config.isObject()) {
    return failed(Kind::kNoObject, "not a JSON object");
  }
  return config;
}

Json::Value completeBusConfig(Json::Value config, const std::string& runtimePath, const BusLogPlace& log) {
  const Json::Value& level = config["log_level"];
  const int fileLevel = level.isInt() ? level.asInt() : kDefaultFileLevel;
  config["log_level"] = static_cast<int>(busLevelOfFile(fileLevel));
  config["runtime_path"] = runtimePath;
  config["log_path"] = log.folder + "/" + log.stem + ".ipc.log";
  config["log_backup_path"] = log.folder + "/backup";
  return config;
}

std::string compactText(const Json::Value& config) {
  std::string text;
  CppJson::WriteJsonToString(config, text, 1);
  return text;
}

std::string socketDirectory(const std::string& runtimePath, const Json::Value& config) {
  std::string folder = CppJson::readString(config, "socket_dir", kDefaultFolder);
  if (folder.empty()) {
    folder = kDefaultFolder;
  }
  const bool standsAlone = folder.front() == '/' || runtimePath.empty();
  return utils::FormatDir(standsAlone ? folder : runtimePath + "/" + folder, false);
}

}  // namespace lunet
