#include "task/RiskRecords.h"

#include <fcntl.h>

#include "json/CppJson.h"
#include "json/ScanRecords.h"
#include "platform/Text.h"
#include "platform/Users.h"

namespace agent {

namespace {

struct ResultText {
  json::HandleResult result;
  const char* text;
};

constexpr ResultText kResultTexts[] = {
    {json::HandleResult::kQuarantined, "已隔离"},  {json::HandleResult::kProcessEnded, "已终止进程"},
    {json::HandleResult::kReportedOnly, "仅上报"}, {json::HandleResult::kFailed, "处理失败"},
    {json::HandleResult::kTrusted, "已信任"},
};

constexpr const char* kDeletedText = "已删除";

std::string otherNames(const Verdict& verdict) {
  std::string names;
  for (std::size_t i = 1; i < verdict.detections.size(); ++i) {
    names += (names.empty() ? "" : ", ") + verdict.detections[i].name;
  }
  return names.empty() ? names : "also: " + names;
}

/// The members that both kinds of file-risk record have, without the size: setWholeSize.
template <class Record>
Record fileRecord(const DetectedFile& detected) {
  const Detection& detection = detected.verdict.detections.at(0);
  Record record;
  record.risk_name = detection.name;
  record.engine_mark = detection.engineCode;
  record.filemd5_src = detected.verdict.md5;
  record.file_create_time = detected.createdSec;
  record.item = json::encodePath(detected.file->path);
  record.filepath_src = record.item;
  record.risk_id = detected.riskId;
  record.find_time = detected.foundSec;
  record.risk_type_name = detection.riskTypeName;
  record.file_modify_time = detected.file->status.st_mtim.tv_sec;
  record.risk_type = json::toNumber(detection.riskType);
  record.desc = otherNames(detected.verdict);
  return record;
}

void setWholeSize(Json::Value& record, const DetectedFile& detected) {
  record["filesize_src"] = static_cast<Json::Int64>(detected.file->status.st_size);
}

JsonReflect::ProcRiskItem processItem(const RunningProgram& program, const DetectedFile& detected,
                                      const std::string& riskId) {
  const Detection& detection = detected.verdict.detections.at(0);
  JsonReflect::ProcRiskItem item;
  item.pid = program.pid;
  item.risk_name = detection.name;
  item.item = json::encodePath(program.path);
  item.risk_id = riskId;
  item.engine_type = detection.engineCode;
  item.find_time = detected.foundSec;
  item.risk_type_name = detection.riskTypeName;
  item.risk_type = json::toNumber(detection.riskType);
  return item;
}

}  // namespace

Json::Value riskInfo(const DetectedFile& detected) {
  JsonReflect::VirusInfo record = fileRecord<JsonReflect::VirusInfo>(detected);
  record.filesha1_src = detected.verdict.sha1;
  Json::Value value;
  record.ToValue(value);
  setWholeSize(value, detected);
  return value;
}

Json::Value processRiskInfo(const RunningProgram& program, const DetectedFile& detected,
                            const std::string& riskId) {
  const Detection& detection = detected.verdict.detections.at(0);
  JsonReflect::MemoryRiskInfo record;
  record.risk_type_name = detection.riskTypeName;
  record.risk_id = riskId;
  record.risk_type = json::toNumber(detection.riskType);
  JsonReflect::ProcessInfo& process = record.process_info;
  process.exec_file_name = json::encodePath(program.path);
  process.proc_name = json::encodePath(program.name);
  process.pid = program.pid;
  process.exec_file_exist = program.onDisk;
  process.user_name = platform::userName(program.uid);
  process.proc_risks.push_back(processItem(program, detected, riskId));
  process.file_risks.push_back(fileRecord<JsonReflect::FileRiskInfo>(detected));
  Json::Value value;
  record.ToValue(value);
  setWholeSize(value["process_info"]["file_risks"][0], detected);
  return value;
}

Json::Value repairResult(json::HandleResult result, const std::string& reason, std::int64_t whenSec) {
  JsonReflect::RiskRepairResult record;
  record.handle_result = json::toNumber(result);
  for (const ResultText& row : kResultTexts) {
    if (row.result == result) {
      record.handle_detail = row.text;
    }
  }
  if (!reason.empty()) {
    record.handle_detail += ": " + platform::visibleText(reason);
  }
  record.handle_time = whenSec;
  Json::Value value;
  record.ToValue(value);
  return value;
}

Json::Value deletedResult(std::int64_t whenSec) {
  Json::Value value = repairResult(json::HandleResult::kQuarantined, "", whenSec);
  value["handle_detail"] = kDeletedText;
  return value;
}

std::int64_t birthTime(int fd) {
  struct statx info {};
  if (statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &info) != 0 || (info.stx_mask & STATX_BTIME) == 0) {
    return 0;
  }
  return info.stx_btime.tv_sec;
}

}  // namespace agent
