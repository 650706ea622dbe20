#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "json/ScanRecords.h"
#include "json/Values.h"

/// The agent's scan notifications as the operator sees them: pure functions from what came to whole lines,
/// each with its line end. Text of the agent's comes out with control characters and broken bytes made
/// visible. Who prints them, and where, is the receivers' affair.
namespace scandisplay {

/// What a task state does to an unattended run.
enum class Effect {
  kNone,
  kReport,       ///< the report is written; the task counts as over
  kReportAtEnd,  ///< the same, unless a state stands already
  kBusy,         ///< the command has to be given again
};

/// One row of the task states.
struct State {
  json::TaskState state;
  const char* text;
  Effect effect;
};
/// Null for a number that is no state.
const State* findState(std::int32_t number);

std::string stateLines(const State& state);
std::string progressLines(std::int32_t progress);
/// Empty for a number that is no stage.
std::string stageLines(std::int32_t stage);
std::string riskLines(const JsonReflect::VirusInfo& risk);
std::string overviewLines(const JsonReflect::ScanBusOverView& overview);
std::string fileRepairLines(const JsonReflect::VirusInfo& risk, const JsonReflect::RiskRepairResult& repair);
std::string processRepairLines(const JsonReflect::MemoryRiskInfo& risk,
                               const JsonReflect::RiskRepairResult& repair);

/// The path of a risk, in wire form: what was scanned, or else the file.
template <class Risk>
const std::string& riskPath(const Risk& risk) {
  return risk.item.empty() ? risk.filepath_src : risk.item;
}

/// Who found a risk.
const char* finderName(std::int32_t finder);

}  // namespace scandisplay
