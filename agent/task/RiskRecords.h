#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "engine/ScanTypes.h"
#include "task/RunningPrograms.h"

namespace agent {

/// A detection in a file, as it is told.
struct FileRisk {
  std::string path;  ///< bytes
  struct stat status {};
  std::int64_t createdSec = 0;  ///< 0 when the file system does not say
  Verdict verdict;              ///< infected: the first detection is told, the others stand in "desc"
  std::string riskId;
  std::int64_t foundSec = 0;
};

/// JsonReflect::VirusInfo on the wire; "filesize_src" is the whole size, also where it passes 32 bits.
Json::Value riskInfo(const FileRisk& risk);
/// JsonReflect::MemoryRiskInfo on the wire: a process whose program is that detection.
Json::Value processRiskInfo(const RunningProgram& program, const FileRisk& risk, const std::string& riskId);
/// JsonReflect::RiskRepairResult. `reason`: one line, for kFailed and where there is more to say.
Json::Value repairResult(json::HandleResult result, const std::string& reason, std::int64_t whenSec);

/// When the file was made, seconds since 1970-01-01; 0 when the file system does not say.
std::int64_t birthTime(int fd);

}  // namespace agent
