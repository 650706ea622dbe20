#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "json/ScanRecords.h"

/// The report of an unattended run, and the document behind the report: "begintime", "endtime", "totalnum",
/// "virusnum" and "virus", with paths in wire form. The receivers of the agent's notifications fill the
/// document; ScanRunState owns the document.
namespace batchreport {

/// Stores the counters. The first call sets the beginning, every call the end. now: as CDateTime::format.
void addOverview(Json::Value& document, const JsonReflect::ScanBusOverView& overview, const std::string& now);
/// Adds an infected file.
void addDetection(Json::Value& document, const JsonReflect::VirusInfo& risk,
                  const JsonReflect::RiskRepairResult& repair);

/// "病毒处理结果" of the report for the agent's "handle_result".
std::int32_t handleCode(std::int32_t handleResult);

/// The text of the report. fixHandle: json::toFixHandle. scanPath: bytes as typed.
std::string text(const Json::Value& document, std::int32_t fixHandle, const std::string& scanPath);

/// True when infected files are counted and named.
bool foundInfected(const Json::Value& document);

/// Writes the report of the running scan to ScanRunState::log_path and returns foundInfected. The report is
/// written whole or not at all, with mode 0600, and is on disk at the return. An entry there that is no
/// regular file, a link included, stays. On failure the counts go to standard error in one line. Bus delivery
/// thread.
bool write();

}  // namespace batchreport
