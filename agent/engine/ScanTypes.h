#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "json/Values.h"

namespace agent {

/// The result of one file's scan. Only a file that was scanned whole is clean.
enum class Outcome : std::uint8_t { kClean, kInfected, kError, kSkipped };

struct Detection {
  std::string name;
  int engineCode = 0;  ///< json::Engine
  json::RiskType riskType = json::RiskType::kVirus;
  std::string riskTypeName;
};

struct Verdict {
  Outcome outcome = Outcome::kError;
  std::string reason;                 ///< one line, for kError and kSkipped
  std::vector<Detection> detections;  ///< for kInfected, at least one
  std::string md5, sha1, sha256;      ///< lower-case hexadecimal; when wanted, and always for kInfected
  bool workerDied = false;            ///< kError: the worker ended on this file. Set by the WorkerPool alone
};

/// The verdict on a file that was not scanned whole: kError or kSkipped.
inline Verdict notScanned(Outcome outcome, std::string reason) {
  return {outcome, std::move(reason), {}, {}, {}, {}};
}

/// The settings of the scan of one file.
struct ScanOptions {
  bool archives = true;                     ///< unpack archives
  std::uint32_t maxLayers = 16;             ///< nested archives
  std::uint64_t maxArchiveBytes = 0;        ///< larger archives are skipped; 0: no limit
  std::vector<std::string> archiveFormats;  ///< lower-case endings that are unpacked; empty: all
  std::uint32_t enabledEngines = 0x3FF;     ///< bit n: engine code n
  bool hashesWanted = false;                ///< also for files without a detection
  bool heuristics = false;                  ///< strong scan: heuristic alerts count as detections
};

}  // namespace agent
