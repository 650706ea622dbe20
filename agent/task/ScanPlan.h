#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/ScanTypes.h"
#include "json/Values.h"
#include "store/Store.h"

namespace agent {

/// What one scan is to do: its request and the settings as they stood when it began, read and checked.
struct ScanPlan {
  json::ScanMode mode = json::ScanMode::kFast;
  int scanType = 0;                ///< as asked: json::toScanType
  std::vector<std::string> items;  ///< bytes; custom scans
  ScanOptions options;
  json::Handling handling = json::Handling::kReportOnly;
  /// What automatic handling does to a file; kNothing when only reporting. Nothing here cleans a file in
  /// place: kClean quarantines, too.
  json::HandleAction action = json::HandleAction::kNothing;
  bool memoryCheck = false;
  bool endProcesses = false;  ///< that run a detection; never when only reporting
  bool useCache = false;
  bool readCache = false;       ///< a forced scan writes the cache and does not read it
  unsigned parallelism = 0;     ///< 0: one worker a core
  std::uint64_t skipBytes = 0;  ///< larger files are skipped; 0: none
  bool programsOnly = false;    ///< and documents, and archives when they are unpacked
  bool networkFileSystems = true;
  std::chrono::seconds limit{0};  ///< 0: none
  std::string cacheKey;           ///< of this way of scanning; grows with the signatures' version
};

/// Nothing, and one line in *why, for a request that cannot be done as it stands.
std::optional<ScanPlan> makePlan(const Json::Value& params, const Settings& settings, std::string* why);

}  // namespace agent
