#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/ScanTypes.h"
#include "json/Values.h"
#include "platform/Expected.h"
#include "store/Settings.h"

namespace agent {

/// The work of one scan, made from the request and the settings at its start, checked.
struct ScanPlan {
  json::ScanMode mode = json::ScanMode::kFast;
  int scanType = 0;                ///< as asked: json::toScanType
  std::vector<std::string> items;  ///< bytes; custom scans
  ScanOptions options;
  json::Handling handling = json::Handling::kReportOnly;
  /// The action of automatic handling on a file; kNothing when only reporting. kClean quarantines, too: the
  /// agent cleans no file in place.
  json::HandleAction action = json::HandleAction::kNothing;
  bool memoryCheck = false;
  bool endProcesses = false;  ///< that run a detected file; false when only reporting
  bool useCache = false;
  bool readCache = false;       ///< a forced scan writes the cache and does not read it
  unsigned parallelism = 0;     ///< 0: one worker a core
  std::uint64_t skipBytes = 0;  ///< larger files are skipped; 0: none
  bool programsOnly = false;    ///< and documents, and archives when they are unpacked
  bool networkFileSystems = true;
  std::chrono::seconds limit{0};  ///< 0: none
  std::string cacheKey;           ///< of the options; FilePipeline adds the signatures' version
};

/// params: JsonReflect::ScanParams. Fails for a request that cannot be carried out to the letter.
platform::Expected<ScanPlan> makePlan(const Json::Value& params, const Settings& settings);

}  // namespace agent
