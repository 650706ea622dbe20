#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "json/ScanRecords.h"

/// The report of an unattended run, and the document it is made from ("begintime", "endtime", "totalnum",
/// "virusnum", "virus"; paths in wire form). Used by the receivers of the agent's notifications; the document
/// itself is ScanRunState's.
namespace batchreport {

/// Takes the counters over; the first call sets the beginning, each the end. now: as CDateTime::format.
void addOverview(Json::Value& document, const JsonReflect::ScanBusOverView& overview, const std::string& now);
/// Adds an infected file.
void addDetection(Json::Value& document, const JsonReflect::VirusInfo& risk,
                  const JsonReflect::RiskRepairResult& repair);

/// The report's "病毒处理结果" for the agent's handle_result.
std::int32_t handleCode(std::int32_t handleResult);

/// The report's text. fixHandle: 1 report only, 2 automatic. scanPath: bytes as typed.
std::string text(const Json::Value& document, std::int32_t fixHandle, const std::string& scanPath);

/// True when infected files were counted and named.
bool foundInfected(const Json::Value& document);

/// Puts the report of the running scan at ScanRunState::log_path: whole or not at all, 0600, through no link,
/// on disk when this returns. What stands there and is no regular file stays; then, and on any other failure,
/// the counts go to standard error in one line. Returns foundInfected. Bus delivery thread.
bool write();

}  // namespace batchreport
