#include "command/scan/BatchReport.h"

#include <sys/stat.h>

#include "bin/Complain.h"
#include "command/scan/ScanDisplay.h"
#include "command/scan/ScanRunState.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "platform/Expected.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace batchreport {

namespace {

constexpr std::uint32_t kReportMode = 0600;

/// "病毒处理结果" of the report.
enum class ReportCode : std::int32_t { kQuarantined = 1, kProcessEnded = 2, kFailed = 3, kLeft = 4 };

struct HandleCode {
  json::HandleResult result;
  ReportCode code;
};
/// Every other result counts as failed.
constexpr HandleCode kHandleCodes[] = {
    {json::HandleResult::kQuarantined, ReportCode::kQuarantined},
    {json::HandleResult::kProcessEnded, ReportCode::kProcessEnded},
    {json::HandleResult::kTrusted, ReportCode::kLeft},
    {json::HandleResult::kIgnored, ReportCode::kLeft},
};

std::string line(const char* label, const std::string& value) {
  return label + value + "\n";
}

std::string line(const char* label, std::int64_t value) {
  return line(label, std::to_string(value));
}

std::string line(const char* label, const Json::Value& document, const char* key) {
  return line(label, CppJson::readString(document, key, ""));
}

std::string detectionText(const Json::Value& detection) {
  const std::string path = json::decodePath(CppJson::readString(detection, "path", ""));
  return line("染毒文件名：", platform::visibleText(CFileInfo(path).fileName())) +
         line("染毒文件全路径：", platform::visibleText(path)) +
         line("文件大小：", CppJson::readInt64(detection, "size", 0)) +
         line("病毒名称：", json::visiblePath(CppJson::readString(detection, "name", ""))) +
         line("病毒处理结果：", CppJson::readInt(detection, "handle", 0)) + "\n";
}

platform::Expected<void> putReport(const std::string& path, const std::string& report) {
  struct stat entry {};
  if (lstat(path.c_str(), &entry) == 0 && !S_ISREG(entry.st_mode)) {
    return platform::failure("something else than a regular file stands there");
  }
  if (const int error = CFile::replaceAtomically(path, report, kReportMode); error != 0) {
    return platform::failure(platform::errnoText(error));
  }
  return {};
}

void complain(const std::string& path, const std::string& reason, const Json::Value& document) {
  tavcli::complain("tavcli: the report cannot be written to \"" + platform::visibleText(path) + "\": " +
                   reason + "; files scanned " + std::to_string(CppJson::readInt64(document, "totalnum", 0)) +
                   ", infected " + std::to_string(CppJson::readInt64(document, "virusnum", 0)) +
                   ", detections named " + std::to_string(document["virus"].size()));
}

}  // namespace

void addOverview(Json::Value& document, const JsonReflect::ScanBusOverView& overview,
                 const std::string& now) {
  if (!document.isMember("begintime")) {
    document["begintime"] = now;
  }
  document["endtime"] = now;
  CppJson::SetInt64(document, "totalnum", overview.checked_item_count);
  CppJson::SetInt64(document, "virusnum", overview.checkout_risk_count);
}

std::int32_t handleCode(std::int32_t handleResult) {
  for (const auto& [result, code] : kHandleCodes) {
    if (json::fromNumber<json::HandleResult>(handleResult) == result) {
      return static_cast<std::int32_t>(code);
    }
  }
  return static_cast<std::int32_t>(ReportCode::kFailed);
}

void addDetection(Json::Value& document, const JsonReflect::VirusInfo& risk,
                  const JsonReflect::RiskRepairResult& repair) {
  Json::Value detection(Json::objectValue);
  detection["path"] = scandisplay::riskPath(risk);
  detection["name"] = risk.risk_name;
  detection["type"] = risk.risk_type_name;
  detection["size"] = risk.filesize_src;
  detection["handle"] = handleCode(repair.handle_result);
  document["virus"].append(std::move(detection));
}

std::string text(const Json::Value& document, std::int32_t fixHandle, const std::string& scanPath) {
  std::string report = line("病毒查杀状态：", fixHandle);
  report += line("查杀路径：", platform::visibleText(scanPath));
  report += line("本次扫描文件数量：", CppJson::readInt64(document, "totalnum", 0));
  report += line("染毒文件数量：", CppJson::readInt64(document, "virusnum", 0));
  report += line("病毒数量：", CppJson::readInt64(document, "virusnum", 0));
  report += line("查杀时间：", document, "begintime");
  report += line("结束时间：", document, "endtime");
  const Json::Value& detections = document["virus"];
  if (!detections.empty()) {
    report += "\n";
  }
  for (const Json::Value& detection : detections) {
    report += detectionText(detection);
  }
  return report;
}

bool foundInfected(const Json::Value& document) {
  return CppJson::readInt64(document, "virusnum", 0) != 0 && !document["virus"].empty();
}

bool write() {
  const ScanRunState& state = ScanRunState::instance();
  const Json::Value document = state.result();
  const std::string path = state.log_path();
  const auto put = putReport(path, text(document, state.fix_handle(), state.scan_path()));
  if (!put) {
    complain(path, put.error(), document);
  }
  return foundInfected(document);
}

}  // namespace batchreport
