#pragma once

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <string>

#include "engine/ScanTypes.h"
#include "task/EncounteredFile.h"
#include "task/RunningPrograms.h"

namespace agent {

/// A file with a detection, from the verdict to the record on the wire.
struct DetectedFile {
  std::shared_ptr<const EncounteredFile> file;
  Verdict verdict;       ///< infected: the first detection is reported, "desc" names the others
  bool trusted = false;  ///< by its hash: reported as trusted and left alone
  std::string riskId{};
  std::int64_t createdSec = 0;  ///< as birthTime
  std::int64_t foundSec = 0;
};

/// JsonReflect::VirusInfo on the wire; "filesize_src" is the whole size, also beyond 32 bits.
Json::Value riskInfo(const DetectedFile& detected);
/// JsonReflect::MemoryRiskInfo on the wire: a process that runs the detected file.
Json::Value processRiskInfo(const RunningProgram& program, const DetectedFile& detected,
                            const std::string& riskId);
/// JsonReflect::RiskRepairResult. reason: one line, or empty.
Json::Value repairResult(json::HandleResult result, const std::string& reason, std::int64_t whenSec);
/// The same for a file that was deleted for good. The number is that of a quarantined file: both are removed.
Json::Value deletedResult(std::int64_t whenSec);

/// The creation time in seconds since 1970-01-01; 0 when the file system does not keep one.
std::int64_t birthTime(int fd);

}  // namespace agent
