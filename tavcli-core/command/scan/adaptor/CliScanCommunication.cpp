#include "command/scan/adaptor/CliScanCommunication.h"

#include <unistd.h>

#include <cstdio>
#include <optional>

#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "json/ScanRecords.h"
#include "jsonrpchelper/AgentMethods.h"
#include "platform/Text.h"

namespace {

constexpr const char* kSource = "command/scan/adaptor/CliScanCommunication";
constexpr int kFromConsole = 1;
constexpr int kConfigTypeCommon = 0;
constexpr int kReportOnly = 1;
constexpr int kAutomatic = 2;
constexpr int kFixMethodSentAutomatic = 0;
constexpr int kFixMethodSentReportOnly = 2;
constexpr int kHandleActionByAgent = -1;
constexpr unsigned kModeCustom = 2;
constexpr int kBusTypeScan = 0;

// The line numbers that the debug log shows are fixed: a record of one release can be looked up in the next.
constexpr command::RequestPlace kGetScanConfig{kSource, "get_scanconfig", 56};
constexpr command::RequestPlace kStartScan{kSource, "action_startscan", 133};
constexpr command::RequestPlace kShowScan{kSource, "action_showscan", 162};
constexpr command::RequestPlace kCtlScan{kSource, "action_ctlscan", 200};

/// Row: mode. Columns: strong scan off, on.
constexpr int kScanTypes[][2] = {{0, 3}, {1, 4}, {2, 5}};

struct Control {
  unsigned task;  ///< the command's own action
  int action;
  int mark;
  const char* detail;
};
constexpr Control kControls[] = {
    {1, 1, 8, "终端停止扫描"},
    {2, 2, 2, "终端暂停扫描"},
    {3, 3, 0, "终端恢复扫描"},
};

std::optional<Control> controlFor(unsigned action) {
  for (const Control& control : kControls) {
    if (control.task == action) {
      return control;
    }
  }
  return std::nullopt;
}

/// An unattended run waits on all the same: the agent may have begun the scan before its answer was lost.
void complainOfUnconfirmedStart(const std::string& why) {
  if (ScanRunState::instance().batch_mode() == 1) {
    std::fprintf(stderr, "tavcli: the agent has not confirmed the start of the scan: %s\n",
                 platform::visibleText(why).c_str());
  }
}

std::string runningTask(const Json::Value& task) {
  const std::string token = CppJson::readString(task, "token_id", "");
  if (!task.isObject() || token.empty() || CppJson::readInt(task, "type", -1) != kBusTypeScan) {
    return "";
  }
  return "Task: " + json::visiblePath(token) + " is running\n";
}

}  // namespace

int CliScanCommunication::scanType(unsigned mode, unsigned special) {
  return mode < std::size(kScanTypes) ? kScanTypes[mode][special == 1 ? 0 : 1] : 0;
}

int CliScanCommunication::get_scanconfig(int& handle) {
  return command::askAgent(kGetScanConfig, 1, [&handle](jsonrpchelper::AgentStub& agent) {
    Json::Value settings;
    if (!CppJson::LoadJsonString(agent.getAVConfig(kConfigTypeCommon, kFromConsole), settings)) {
      return 0;
    }
    const Json::Value* common = CppJson::findMember(settings, "Common");
    if (common == nullptr || !common->isObject()) {
      return 1;
    }
    const int fixMethod = CppJson::readInt(*common, "FixMethod", 0);
    handle = fixMethod == 1 || fixMethod == 2 ? kReportOnly : kAutomatic;
    std::printf("FixMethod is %d, handle is %d\n", fixMethod, handle);
    return 1;
  });
}

int CliScanCommunication::action_startscan(unsigned handle, unsigned mode,
                                           const std::vector<std::string>& paths, unsigned special) {
  const auto start = [&](jsonrpchelper::AgentStub& agent) {
    JsonReflect::ScanParams params;
    params.set_custom_stop(true);
    params.set_fix_method(handle != 0 ? kFixMethodSentReportOnly : kFixMethodSentAutomatic);
    params.set_handle_action(kHandleActionByAgent);
    params.set_follow_link(false);
    params.set_force_scan(false);
    params.set_uid(static_cast<int>(getuid()));
    params.set_scan_type(scanType(mode, special));
    if (mode == kModeCustom) {
      for (const std::string& path : paths) {
        params.items().push_back(json::encodePath(path));
      }
    }
    Json::Value request;
    if (!params.ToValue(request)) {
      return 0;
    }
    const Json::Value answer = agent.startScanTask(Json::Value(), "", request, kFromConsole, "");
    return CppJson::readBool(answer, "status", false) ? 1 : 0;
  };
  return command::askAgent(kStartScan, 0, start, complainOfUnconfirmedStart);
}

int CliScanCommunication::action_showscan() {
  return command::askAgent(kShowScan, 0, [](jsonrpchelper::AgentStub& agent) {
    const Json::Value tasks = agent.getBusList();
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
    agent.ctlBus(control->action, control->detail, control->mark, Json::Value(), kFromConsole, token_id);
    return 1;
  });
}
