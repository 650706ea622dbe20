#include "command/scan/IBusinessCImpl.h"

#include <cstdio>

#include "bin/BusState.h"
#include "bin/Complain.h"
#include "bin/InstallDir.h"
#include "command/scan/BatchReport.h"
#include "command/scan/ScanDisplay.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "lineeditor/Notices.h"
#include "platform/CLogDebug.h"

namespace {

std::string stateLine(const char* name, std::uint32_t value) {
  char line[48];
  std::snprintf(line, sizeof line, "%s = 0x%x\n", name, value);
  return line;
}

/// Writes the report before the state changes: the loop that sees the state finds the report.
void reportAndSetState() {
  g_lastBusState = batchreport::write() ? tavcli::kBusStateInfected : tavcli::kBusStateClean;
}

/// The report and the exit code do not show the entries that could not be scanned.
void complainOfUnscanned() {
  const std::int64_t count = ScanRunState::instance().failed_items();
  if (count > 0) {
    tavcli::complain("tavcli: entries that could not be scanned: " + std::to_string(count) + "; see " +
                     tavcli::installDirectory() + "log/tavagentd.log");
  }
}

/// Ends the scan. Returns two lines: the state before the end, and the state after the end.
std::string endOfTask() {
  const std::uint32_t before = g_lastBusState;
  if (before == tavcli::kBusStateNone) {
    complainOfUnscanned();
    reportAndSetState();
  }
  return stateLine("exitvalue1", before) + stateLine("exitvalue2", g_lastBusState);
}

/// Names the reason why a task did not reach its end. The exit code does not carry the reason.
void complainOf(const scandisplay::State& state, const std::string& detail) {
  tavcli::complain("tavcli: " + std::string(state.text) +
                   (detail.empty() ? "" : ": " + json::visiblePath(detail)));
}

/// The detail of a start: what the agent scans without. The report and the exit code do not show it.
void complainOfShortage(const scandisplay::State& state, const std::string& detail) {
  if (state.state == json::TaskState::kStarted && !detail.empty()) {
    tavcli::complain("tavcli: " + json::visiblePath(detail));
  }
}

void takeEffect(const scandisplay::State& state, const std::string& detail) {
  switch (state.effect) {
    case scandisplay::Effect::kNone:
      lineeditor::printNotice(scandisplay::stateLines(state));
      complainOfShortage(state, detail);
      break;
    case scandisplay::Effect::kBusy:
      lineeditor::printNotice(scandisplay::stateLines(state));
      ScanRunState::instance().noteBusy();
      g_lastBusState = tavcli::kBusStateBusy;
      break;
    case scandisplay::Effect::kReport:
      lineeditor::printNotice(scandisplay::stateLines(state));
      complainOf(state, detail);
      reportAndSetState();
      break;
    case scandisplay::Effect::kReportAtEnd:
      lineeditor::printNotice(scandisplay::stateLines(state) + endOfTask());
      break;
  }
}

}  // namespace

void IBusinessCImpl::reportBusStatus(const jsonrpchelper::ReportBusStatus& report) {
  const scandisplay::State* const row = scandisplay::findState(report.state);
  const auto type = json::fromNumber<json::BusinessType>(report.type);
  if (report.token_id.empty() || type != json::BusinessType::kScan || row == nullptr) {
    return;
  }
  const LogLevel level = row->effect == scandisplay::Effect::kReport ? LogLevel::kWarning : LogLevel::kInfo;
  CLogDebug::LogPrintV(level, __FILE__, "reportBusStatus", __LINE__, "task %s: state %d %s",
                       report.token_id.c_str(), report.state, report.detail.c_str());
  if (ScanRunState::instance().batch_mode() == 1) {
    takeEffect(*row, report.detail);
    if (g_lastBusState == tavcli::kBusStateClean || g_lastBusState == tavcli::kBusStateInfected) {
      tavcli::announceFinalState();
    }
  } else {
    lineeditor::printNotice(scandisplay::stateLines(*row));
  }
}

void IBusinessCImpl::reportBusProgress(const jsonrpchelper::ReportBusProgress& report) {
  lineeditor::printNotice(scandisplay::progressLines(report.progress));
}
