#include "command/scan/ScanDisplay.h"

#include <iterator>

#include "command/ListText.h"
#include "json/CppJson.h"
#include "platform/Text.h"

namespace scandisplay {

namespace {

constexpr State kStates[] = {
    {json::TaskState::kNotCreated, "扫描任务创建失败", Effect::kReport},
    {json::TaskState::kCreated, "扫描任务初始化", Effect::kNone},
    {json::TaskState::kStarted, "扫描任务开始: ", Effect::kNone},
    {json::TaskState::kFinished, "扫描结束", Effect::kReportAtEnd},
    {json::TaskState::kPaused, "扫描任务已暂停", Effect::kReport},
    {json::TaskState::kResumed, "扫描任务已恢复", Effect::kNone},
    {json::TaskState::kAborted, "扫描任务已中止", Effect::kReport},
    {json::TaskState::kSameModeExists, "已存在同种类型扫描任务", Effect::kBusy},
};

/// The index is the number of the stage.
constexpr const char* kStages[] = {
    "系统设置检测开始",     "系统设置检测结束",     "常用软件检测开始", "常用软件检测结束",
    "内存活跃程序检测开始", "内存活跃程序检测结束", "开机启动项开始",   "开机启动项结束",
    "系统关键位置检测开始", "系统关键位置检测结束",
};

using command::appendField;

void appendAgentField(std::string& lines, const char* label, const std::string& wire) {
  appendField(lines, label, json::visiblePath(wire));
}

void appendRepair(std::string& lines, const JsonReflect::RiskRepairResult& repair) {
  appendAgentField(lines, "处理结果", repair.handle_detail);
  appendField(lines, "修复时间", CDateTime::format(repair.handle_time));
  lines += command::kItemRule;
}

std::string counter(const char* label, std::int64_t count) {
  return std::string("\n") + label + std::to_string(count) + "\n";
}

}  // namespace

const State* findState(std::int32_t number) {
  for (const State& state : kStates) {
    if (json::fromNumber<json::TaskState>(number) == state.state) {
      return &state;
    }
  }
  return nullptr;
}

std::string stateLines(const State& state) {
  return std::string("\n") + state.text + "\n";
}

std::string progressLines(std::int32_t progress) {
  return "\n扫描进度: " + std::to_string(progress) + "%\n";
}

std::string stageLines(std::int32_t stage) {
  if (stage < 0 || stage >= static_cast<std::int32_t>(std::size(kStages))) {
    return "";
  }
  return std::string("\n") + kStages[stage] + "\n";
}

const char* finderName(std::int32_t finder) {
  switch (json::fromNumber<json::Finder>(finder).value_or(json::Finder::kScan)) {
    case json::Finder::kRealTime:
      return "实时防护";
    case json::Finder::kUsb:
      return "USB防护";
    case json::Finder::kScan:
      break;
  }
  return "主动扫描";
}

std::string riskLines(const JsonReflect::VirusInfo& risk) {
  std::string lines;
  appendField(lines, "发现时间", CDateTime::format(risk.find_time));
  appendAgentField(lines, "文件路径", riskPath(risk));
  appendAgentField(lines, "风险项名称", risk.risk_name);
  appendField(lines, "检出引擎类型", json::engineName(risk.engine_mark));
  appendAgentField(lines, "病毒类型", risk.risk_type_name);
  appendField(lines, "结果来源", finderName(risk.finder));
  return lines.append(command::kItemRule);
}

std::string overviewLines(const JsonReflect::ScanBusOverView& overview) {
  std::string lines = "\n当前检测项: " + json::visiblePath(overview.cur_item) + "\n";
  lines += counter("已检测项: ", overview.checked_item_count);
  if (overview.checkout_risk_count != 0) {
    lines += counter("已检出异常项: ", overview.checkout_risk_count);
  }
  if (overview.fixed_risk_count != 0) {
    lines += counter("已修复异常项: ", overview.fixed_risk_count);
  }
  return lines;
}

std::string fileRepairLines(const JsonReflect::VirusInfo& risk, const JsonReflect::RiskRepairResult& repair) {
  std::string lines;
  appendAgentField(lines, "风险项名称", risk.risk_name);
  appendRepair(lines, repair);
  return lines;
}

std::string processRepairLines(const JsonReflect::MemoryRiskInfo& risk,
                               const JsonReflect::RiskRepairResult& repair) {
  constexpr const char* kPart = "风险子项";
  std::string lines;
  appendAgentField(lines, "风险进程名称", risk.process_info.exec_file_name);
  for (const JsonReflect::ProcRiskItem& part : risk.process_info.proc_risks) {
    appendAgentField(lines, kPart, part.item);
  }
  for (const JsonReflect::FileRiskInfo& part : risk.process_info.file_risks) {
    appendAgentField(lines, kPart, riskPath(part));
  }
  appendRepair(lines, repair);
  return lines;
}

}  // namespace scandisplay
