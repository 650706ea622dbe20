#include "command/scan/adaptor/CliScanCommunication.h"

#include <unistd.h>

#include <cstdio>
#include <optional>

#include "bin/Complain.h"
#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "json/ScanRecords.h"
#include "json/Values.h"

namespace {

constexpr const char* kSource = "command/scan/adaptor/CliScanCommunication";

// The debug log shows fixed line numbers, so that its records mean the same in every release.
constexpr command::RequestPlace kGetScanConfig{kSource, "get_scanconfig", 56};
constexpr command::RequestPlace kStartScan{kSource, "action_startscan", 133};
constexpr command::RequestPlace kShowScan{kSource, "action_showscan", 162};
constexpr command::RequestPlace kCtlScan{kSource, "action_ctlscan", 200};

struct Control {
  json::ControlAction action;  ///< has the number of the command's own action
  int mark;
  const char* detail;
};
constexpr Control kControls[] = {
    {json::ControlAction::kStop, 8, "终端停止扫描"},
    {json::ControlAction::kPause, 2, "终端暂停扫描"},
    {json::ControlAction::kResume, 0, "终端恢复扫描"},
};

std::optional<Control> controlFor(unsigned action) {
  for (const Control& control : kControls) {
    if (json::fromNumber<json::ControlAction>(action) == control.action) {
      return control;
    }
  }
  return std::nullopt;
}

/// One line for the user of an unattended run. The run goes on: the agent may have begun the scan before the
/// answer was lost.
void complainOfUnconfirmedStart(const std::string& why) {
  if (ScanRunState::instance().batch_mode() == 1) {
    tavcli::complain("tavcli: the agent has not confirmed the start of the scan: " + why);
  }
}

/// 0 for an unknown mode.
int scanType(unsigned mode, unsigned special) {
  const auto known = json::fromNumber<json::ScanMode>(mode);
  return known ? json::toScanType(*known, special != CliScanCommunication::kStrongScanOff) : 0;
}

std::string runningTask(const Json::Value& task) {
  const std::string token = CppJson::readString(task, "token_id", "");
  if (token.empty() ||
      json::fromNumber<json::BusinessType>(CppJson::readInt(task, "type", -1)) != json::BusinessType::kScan) {
    return "";
  }
  return "Task: " + json::visiblePath(token) + " is running\n";
}

}  // namespace

int CliScanCommunication::get_scanconfig(int& handle) {
  return command::askAgent(kGetScanConfig, 1, [&handle](jsonrpchelper::AgentStub& agent) {
    Json::Value settings;
    const std::string text = agent.call(jsonrpchelper::GetAVConfig{
        .config_type = json::toNumber(json::ConfigType::kScan), .request_source = command::kFromConsole});
    if (!CppJson::LoadJsonString(text, settings)) {
      return 0;
    }
    const Json::Value* common = CppJson::findMember(settings, "Common");
    if (common == nullptr || !common->isObject()) {
      return 1;
    }
    const int fixMethod =
        CppJson::readInt(*common, "FixMethod", json::toFixMethod(json::Handling::kAutomatic));
    handle = json::toFixHandle(json::handlingOfSetting(fixMethod));
    std::printf("FixMethod is %d, handle is %d\n", fixMethod, handle);
    return 1;
  });
}

int CliScanCommunication::action_startscan(json::Handling handling, unsigned mode,
                                           const std::vector<std::string>& paths, unsigned special) {
  const auto start = [&](jsonrpchelper::AgentStub& agent) {
    JsonReflect::ScanParams params;
    params.set_custom_stop(true);
    params.set_fix_method(json::toFixMethod(handling));
    params.set_handle_action(json::toNumber(json::HandleAction::kByAgent));
    params.set_follow_link(false);
    params.set_force_scan(false);
    params.set_uid(static_cast<int>(getuid()));
    params.set_scan_type(scanType(mode, special));
    if (json::fromNumber<json::ScanMode>(mode) == json::ScanMode::kCustom) {
      for (const std::string& path : paths) {
        params.items().push_back(json::encodePath(path));
      }
    }
    Json::Value request;
    if (!params.ToValue(request)) {
      return 0;
    }
    const Json::Value answer = agent.call(jsonrpchelper::StartScanTask{
        .ctx = {}, .desc = "", .params = request, .source = command::kFromConsole, .token_id = ""});
    return CppJson::readBool(answer, "status", false) ? 1 : 0;
  };
  return command::askAgent(kStartScan, 0, start, complainOfUnconfirmedStart);
}

int CliScanCommunication::action_showscan() {
  return command::askAgent(kShowScan, 0, [](jsonrpchelper::AgentStub& agent) {
    const Json::Value tasks = agent.call(jsonrpchelper::GetBusList{});
    if (!tasks.isArray()) {
      return 0;
    }
    std::string lines;
    for (const Json::Value& task : tasks) {
      lines += runningTask(task);
    }
    command::printText(lines);
    return 1;
  });
}

int CliScanCommunication::action_ctlscan(const std::string& token_id, unsigned action) {
  return command::askAgent(kCtlScan, 0, [&](jsonrpchelper::AgentStub& agent) {
    const std::optional<Control> control = controlFor(action);
    if (!control) {
      return 0;
    }
    agent.call(jsonrpchelper::CtlBus{.action = json::toNumber(control->action),
                                     .detail = control->detail,
                                     .mark = control->mark,
                                     .payload = {},
                                     .source = command::kFromConsole,
                                     .token_id = token_id});
    return 1;
  });
}
