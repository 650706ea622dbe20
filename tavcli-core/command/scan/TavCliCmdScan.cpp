#include "command/scan/TavCliCmdScan.h"

#include "command/scan/ScanReceivers.h"
#include "command/scan/ScanRunState.h"
#include "command/scan/TavCliCmdScanExec.h"
#include "platform/Files.h"
#include "shell/TaskHandlers.h"

namespace {

using shell::GrammarRow;
using shell::kChoice;
using shell::kNoHint;
using shell::kNoValue;
using shell::kOption;
using shell::kRequired;
using shell::kStringValue;
using shell::setField;
using shell::startTask;
using Exec = TavCliCmdScanExec;

/// The prefix of the LOGPATH value of an unattended run.
constexpr std::string_view kBatchMark = "tav1";

/// Sets an action on the task of the agent with the given token.
template <std::int32_t action>
std::uint8_t control(const CliNodeInfo& /*node*/, const std::string& value) {
  return shell::changeTask<Exec>([&value](Exec& task) {
    task.action = action;
    task.token_id = value;
  });
}

std::uint8_t addPath(const CliNodeInfo& /*node*/, const std::string& value) {
  return shell::changeTask<Exec>([&value](Exec& task) {
    task.paths.push_back(value);
    ScanRunState::instance().set_scan_path(value);
  });
}

void keepLogPath(Exec& task, const std::string& value) {
  if (value.empty()) {
    return;
  }
  const bool batch = value.starts_with(kBatchMark);
  task.log_path = batch ? value.substr(kBatchMark.size()) : value;
  const CFileInfo file(task.log_path);
  if (!file.exists() || file.isFile()) {
    ScanRunState::instance().set_log_path(task.log_path);
  }
  if (batch) {
    ScanRunState::instance().set_batch_mode();
  }
}

std::uint8_t setLogPath(const CliNodeInfo& /*node*/, const std::string& value) {
  return shell::changeTask<Exec>([&value](Exec& task) { keepLogPath(task, value); });
}

// The rows stand in the order of their attachment. The TOKENID rows have the help text of PATH.
const GrammarRow kGrammar[] = {
    {"SCAN", "杀毒", kNoHint, kChoice, kNoValue, startTask<Exec>},
    {"SCAN START", "开始杀毒", kNoHint, kChoice, kNoValue, setField<&Exec::action, Exec::kStart>},
    {"SCAN PARSE", "暂停杀毒", kNoHint, kChoice, kNoValue, nullptr},
    {"SCAN PARSE TOKENID", "自定义查杀路径", "\"令牌ID 由SCAN SHOW指令查询\"", kChoice, kStringValue,
     control<Exec::kPause>},
    {"SCAN RECOVERD", "恢复杀毒", kNoHint, kChoice, kNoValue, nullptr},
    {"SCAN RECOVERD TOKENID", "自定义查杀路径", "\"令牌ID 由SCAN SHOW指令查询\"", kChoice, kStringValue,
     control<Exec::kResume>},
    {"SCAN STOP", "停止杀毒", kNoHint, kChoice, kNoValue, nullptr},
    {"SCAN STOP TOKENID", "自定义查杀路径", "\"令牌ID 由SCAN SHOW指令查询\"", kChoice, kStringValue,
     control<Exec::kStop>},
    {"SCAN SHOW", "查看正在进行的查杀任务", kNoHint, kChoice, kNoValue, setField<&Exec::action, Exec::kShow>},
    {"SCAN START HANDLE", "病毒默认处理方式", kNoHint, kRequired, kNoValue, nullptr},
    {"SCAN START HANDLE AUTO", "自动处理", kNoHint, kChoice, kNoValue,
     setField<&Exec::handle, Exec::kAutomatic>},
    {"SCAN START HANDLE UPLOAD", "仅上报不处理", kNoHint, kChoice, kNoValue,
     setField<&Exec::handle, Exec::kReportOnly>},
    {"SCAN START SPECIALCONFIG", "强力扫描开关", kNoHint, kOption, kNoValue, nullptr},
    {"SCAN START MODE", "查杀模式", kNoHint, kRequired, kNoValue, nullptr},
    {"SCAN START LOGPATH", "日志导出路径", "\"log path [string]\"", kOption, kStringValue, setLogPath},
    {"SCAN START MODE FAST", "快速查杀", kNoHint, kChoice, kNoValue, setField<&Exec::mode, Exec::kFast>},
    {"SCAN START MODE FULL", "全盘查杀", kNoHint, kChoice, kNoValue, setField<&Exec::mode, Exec::kFull>},
    {"SCAN START MODE CUSTOM", "自定义查杀", kNoHint, kChoice, kNoValue,
     setField<&Exec::mode, Exec::kCustom>},
    {"SCAN START MODE CUSTOM PATH", "自定义查杀路径", "\"scan path [string]\"", kChoice, kStringValue,
     addPath},
    {"SCAN START SPECIALCONFIG ON", "开启", kNoHint, kChoice, kNoValue,
     setField<&Exec::special, Exec::kStrongOn>},
    {"SCAN START SPECIALCONFIG OFF", "关闭", kNoHint, kChoice, kNoValue,
     setField<&Exec::special, Exec::kStrongOff>},
};

}  // namespace

TavCliCmdScan TavCliCmdScan::module;

TavCliCmdScan::TavCliCmdScan() : CommandModule("scan", "Scan", kGrammar) {}

int TavCliCmdScan::load(CObject* owner) {
  const int result = CommandModule::load(owner);
  createScanReceivers();
  return result;
}
