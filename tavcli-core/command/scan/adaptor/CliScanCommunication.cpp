#include "command/scan/adaptor/CliScanCommunication.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <optional>

#include "json/CppJson.h"
#include "json/ScanRecords.h"
#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/Holders.h"
#include "lunet/Lunet.h"
#include "platform/CLogDebug.h"

namespace {

constexpr int kErrorLevel = 4;
constexpr int kSource = 1;
constexpr int kConfigTypeCommon = 0;
constexpr int kReportOnly = 1;
constexpr int kAutomatic = 2;
constexpr int kFixMethodSentAutomatic = 0;
constexpr int kFixMethodSentReportOnly = 2;
constexpr int kHandleActionByAgent = -1;
constexpr unsigned kModeCustom = 2;
constexpr int kBusTypeScan = 0;

/// An operation as the debug log names it. The line numbers are fixed, so that a record of one release can be
/// looked up in the next.
struct Operation {
  const char* name;
  int line;
};
constexpr Operation kGetScanConfig{"get_scanconfig", 56};
constexpr Operation kStartScan{"action_startscan", 133};
constexpr Operation kShowScan{"action_showscan", 162};
constexpr Operation kCtlScan{"action_ctlscan", 200};

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

/// Makes the call, if there is an agent to call; a failure of it is logged and gives onFailure.
int withAgent(const Operation& operation, int onFailure,
              const std::function<int(jsonrpchelper::AgentStub& agent)>& call) {
  auto* client = jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid);
  if (client == nullptr) {
    return 0;
  }
  try {
    jsonrpchelper::AgentStub agent(*client);
    return call(agent);
  } catch (const std::exception& exception) {
    CLogDebug::LogPrintV(kErrorLevel, __FILE__, operation.name, operation.line, "Caught exception:\n %s",
                         exception.what());
    return onFailure;
  }
}

std::optional<Control> controlFor(unsigned action) {
  for (const Control& control : kControls) {
    if (control.task == action) {
      return control;
    }
  }
  return std::nullopt;
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
  return withAgent(kGetScanConfig, 1, [&handle](jsonrpchelper::AgentStub& agent) {
    Json::Value settings;
    if (!CppJson::LoadJsonString(agent.getAVConfig(kConfigTypeCommon, kSource), settings)) {
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
  return withAgent(kStartScan, 0, [&](jsonrpchelper::AgentStub& agent) {
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
    const Json::Value answer = agent.startScanTask(Json::Value(), "", request, kSource, "");
    return CppJson::readBool(answer, "status", false) ? 1 : 0;
  });
}

int CliScanCommunication::action_showscan() {
  return withAgent(kShowScan, 0, [](jsonrpchelper::AgentStub& agent) {
    const Json::Value tasks = agent.getBusList();
    if (!tasks.isArray()) {
      return 0;
    }
    for (const Json::Value& task : tasks) {
      std::fputs(runningTask(task).c_str(), stdout);
    }
    return 1;
  });
}

int CliScanCommunication::action_ctlscan(const std::string& token_id, unsigned action) {
  return withAgent(kCtlScan, 0, [&](jsonrpchelper::AgentStub& agent) {
    const std::optional<Control> control = controlFor(action);
    if (!control) {
      return 0;
    }
    agent.ctlBus(control->action, control->detail, control->mark, Json::Value(), kSource, token_id);
    return 1;
  });
}
