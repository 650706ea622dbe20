#pragma once

#include <cstdint>
#include <string>

#include "json/ScanRecords.h"
#include "json/Values.h"

/// The agent's scan notifications as text: pure functions from a notification to whole lines with their line
/// ends. The functions make control characters and broken bytes of the agent's texts visible. The receivers
/// print the lines.
namespace scandisplay {

/// The effect of a task state on an unattended run.
enum class Effect {
  kNone,
  kReport,       ///< the report is written and the task counts as over
  kReportAtEnd,  ///< the same, unless the run has a state already
  kBusy,         ///< the command must be given again
};

/// One row of the task states.
struct State {
  json::TaskState state;
  const char* text;
  Effect effect;
};
/// Null for a number without a row.
const State* findState(std::int32_t number);

std::string stateLines(const State& state);
std::string progressLines(std::int32_t progress);
/// Empty for a number without a stage.
std::string stageLines(std::int32_t stage);
std::string riskLines(const JsonReflect::VirusInfo& risk);
std::string overviewLines(const JsonReflect::ScanBusOverView& overview);
std::string fileRepairLines(const JsonReflect::VirusInfo& risk, const JsonReflect::RiskRepairResult& repair);
std::string processRepairLines(const JsonReflect::MemoryRiskInfo& risk,
                               const JsonReflect::RiskRepairResult& repair);

/// The path of a risk in wire form: the scanned item, or the file where the item is empty.
template <class Risk>
const std::string& riskPath(const Risk& risk) {
  return risk.item.empty() ? risk.filepath_src : risk.item;
}

/// The name of the component that found a risk.
const char* finderName(std::int32_t finder);

}  // namespace scandisplay
