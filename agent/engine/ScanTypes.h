#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Values.h"

namespace agent {

/// How one scanned entry ended. Nothing is clean that was not scanned whole.
enum class Outcome : std::uint8_t { kClean, kInfected, kError, kSkipped };

struct Detection {
  std::string name;    ///< of the detection
  int engineCode = 0;  ///< json::Engine
  json::RiskType riskType = json::RiskType::kVirus;
  std::string riskTypeName;
};

struct Verdict {
  Outcome outcome = Outcome::kError;
  std::string reason;                 ///< why, for kError and kSkipped: one line
  std::vector<Detection> detections;  ///< for kInfected, at least one
  std::string md5, sha1, sha256;      ///< lower-case hexadecimal, when wanted; of a detection always
};

/// What a scan is told for each file.
struct ScanOptions {
  bool archives = true;               ///< unpack at all
  std::uint32_t maxLayers = 16;       ///< nested archives
  std::uint64_t maxArchiveBytes = 0;  ///< larger archives are skipped with a reason; 0: no limit of ours
  std::vector<std::string> archiveFormats;  ///< lower-case endings that are unpacked; empty: all
  std::uint32_t enabledEngines = 0x3FF;     ///< bit n: engine code n
  bool hashesWanted = false;                ///< fill md5/sha1/sha256 of clean files too
  bool heuristics = false;                  ///< strong scan: heuristic alerts count as detections
};

}  // namespace agent
