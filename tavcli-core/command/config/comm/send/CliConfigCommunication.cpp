#include "command/config/comm/send/CliConfigCommunication.h"

#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "command/config/ConfigDisplay.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "platform/CLogDebug.h"

namespace {

constexpr const char* kSource = "command/config/comm/send/CliConfigCommunication";

using json::ConfigType;

using BuildRows = command::SettingRows (*)(const Json::Value& document);

int show(const command::RequestPlace& place, ConfigType type, BuildRows build) {
  return command::askAgent(place, 1, [&](jsonrpchelper::AgentStub& agent) {
    const std::string text = agent.call(jsonrpchelper::GetAVConfig{.config_type = json::toNumber(type),
                                                                   .request_source = command::kFromConsole});
    CLogDebug::LogPrintStr(LogLevel::kInfo, place.source, place.function, place.line, "get config " + text);
    Json::Value document;
    if (!CppJson::LoadJsonString(text, document)) {
      return 0;
    }
    command::printText(command::settingsText(build(document)));
    return 1;
  });
}

int change(const command::RequestPlace& place, ConfigType type, const std::string& text) {
  return command::askAgent(place, 0, [&](jsonrpchelper::AgentStub& agent) {
    return agent.call(jsonrpchelper::SetAVConfig{.config_str = text,
                                                 .config_type = json::toNumber(type),
                                                 .request_source = command::kFromConsole})
               ? 1
               : 0;
  });
}

}  // namespace

int CliConfigCommunication::action_scanconfig_show() {
  return show({kSource, __func__, __LINE__}, ConfigType::kScan, command::scanSettingRows);
}

int CliConfigCommunication::action_isolationconfig_show() {
  return show({kSource, __func__, __LINE__}, ConfigType::kQuarantine, command::quarantineSettingRows);
}

int CliConfigCommunication::action_engineconfig_show() {
  return show({kSource, __func__, __LINE__}, ConfigType::kEngines, command::engineSettingRows);
}

int CliConfigCommunication::action_realprotectconfig_show() {
  return show({kSource, __func__, __LINE__}, ConfigType::kRealTime, command::realProtectSettingRows);
}

int CliConfigCommunication::action_avconfig_scan_set(const std::string& text) {
  return change({kSource, __func__, __LINE__}, ConfigType::kScan, text);
}

int CliConfigCommunication::action_avconfig_realprotect_set(const std::string& text) {
  return change({kSource, __func__, __LINE__}, ConfigType::kRealTime, text);
}

int CliConfigCommunication::action_avconfig_engines_set(const std::string& text) {
  return change({kSource, __func__, __LINE__}, ConfigType::kEngines, text);
}

int CliConfigCommunication::action_avconfig_common_set(const std::string& /*text*/) {
  return 1;
}
