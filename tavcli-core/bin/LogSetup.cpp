#include "bin/LogSetup.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "bin/Complain.h"
#include "json/CppJson.h"
#include "lunet/LogLevels.h"
#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "platform/Files.h"
#include "platform/Text.h"

namespace tavcli {

namespace {

constexpr CLogLevel kDefaultCLogLevel = CLogLevel::kError;

/// The settings of etc/debug/cli_debug.conf. A key that is missing or no integer keeps its initial value.
struct DebugLogSettings {
  int sizeBytes = 1048576;
  int backupCount = 5;
  int level = static_cast<int>(LogLevel::kWarning);
};

void readNumber(const Json::Value& file, const char* key, int& number) {
  if (file.isObject() && file[key].isInt()) {
    number = file[key].asInt();
  }
}

DebugLogSettings readDebugLogSettings(const Json::Value& file) {
  DebugLogSettings settings;
  readNumber(file, "log_size", settings.sizeBytes);
  readNumber(file, "log_backup_max_num", settings.backupCount);
  readNumber(file, "log_level", settings.level);
  return settings;
}

/// text: the value of CKORVIX_CLOG_LEVEL; null when the variable is not set.
CLogLevel clogLevelFor(const char* text) {
  if (text == nullptr || !CStr::isNum(text)) {
    return kDefaultCLogLevel;
  }
  const long value = std::strtol(text, nullptr, 10);
  const bool known =
      value >= static_cast<int>(CLogLevel::kDebug) && value <= static_cast<int>(CLogLevel::kWarning);
  return known ? static_cast<CLogLevel>(value) : kDefaultCLogLevel;
}

std::optional<DebugLogSettings> loadDebugLogSettings(const std::string& path) {
  const auto text = CFile::readAll(path);
  Json::Value file;
  if (!text || !CppJson::LoadJsonString(*text, file)) {
    return std::nullopt;
  }
  return readDebugLogSettings(file);
}

}  // namespace

bool initCLog() {
  CLog::set_log_level(clogLevelFor(std::getenv("CKORVIX_CLOG_LEVEL")));
  CLog::set_log_callback(clogCallback);
  return true;
}

bool initLog(const ContainerConfig& config) {
  const std::optional<DebugLogSettings> settings = loadDebugLogSettings(config.debugConfigFile);
  if (!settings) {
    std::printf("No valid logdebug configuration file %s\n",
                platform::visibleText(config.debugConfigFile).c_str());
    return false;
  }
  const std::string path = config.logDir + "/";
  const std::string name = config.name.empty() ? "tavcli" : config.name;
  CLogDebug* log = CLogDebug::Create();
  log->SetProperty(CLogDebug::kPath, path);
  log->SetProperty(CLogDebug::kName, name);
  log->SetProperty(CLogDebug::kSize, std::to_string(settings->sizeBytes));
  log->SetProperty(CLogDebug::kBackupCount, std::to_string(settings->backupCount));
  log->SetProperty(CLogDebug::kLevel, std::to_string(settings->level));
  if (const auto made = CLogDebug::makeFolder(); !made) {
    complain("tavcli: no debug log is written: " + made.error());
  }
  std::printf("=====initLog=====\nloglevel:%d\nlogSize:%d\nlogName:%s\nlogPath:%s\nlogBackupMaxNum:%d\n",
              settings->level, settings->sizeBytes, name.c_str(), platform::visibleText(path).c_str(),
              settings->backupCount);
  return true;
}

void clogCallback(int level, const char* text) {
  if (const auto own = platform::fromCLog(level)) {
    CLogDebug::LogPrintStr(*own, __FILE__, "clogCallback", __LINE__, text);
  }
}

void lunetLogCallback(int level, const char* text) {
  CLogDebug::LogPrintStr(lunet::fromBus(level), __FILE__, "lunetLogCallback", __LINE__, text);
}

}  // namespace tavcli
