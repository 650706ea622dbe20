#include "engine/DetectionNames.h"

#include <algorithm>

#include "json/CppJson.h"
#include "platform/Text.h"

namespace agent {
namespace {

constexpr std::string_view kUnofficial = ".UNOFFICIAL";  // libclamav adds it to names from text files

// Alerts for content that libclamav left out. The first row with the beginning of the alert's name counts.
struct NotScannedRow {
  std::string_view beginning;
  const char* reason;
};
constexpr NotScannedRow kNotScanned[] = {
    {"Heuristics.Limits.Exceeded.MaxFileSize", "larger than the engine's limit for one file or member"},
    {"Heuristics.Limits.Exceeded.MaxScanSize", "more data in it than the engine's limit for one scan"},
    {"Heuristics.Limits.Exceeded.MaxFiles", "more members than the engine's limit"},
    {"Heuristics.Limits.Exceeded.MaxRecursion", "nested deeper than the engine's limit"},
    {"Heuristics.Limits.Exceeded.MaxScanTime", "the scan took longer than the engine's limit"},
    {"Heuristics.Limits.Exceeded.Email", "a mail with more parts or headers than the engine's limit"},
    {"Heuristics.Limits.Exceeded", "a limit of the engine was reached"},
    {"Heuristics.Encrypted", "encrypted: its content cannot be scanned"},
    {"Heuristics.Zip.OverlappingFiles", "its members overlap: they were not all unpacked"},
    {"Heuristics.XZ.DicSizeLimit", "needs more memory to unpack than the engine's limit"},
};

// The engine of a detection: the first row that matches. `parts`: one of them must be a whole dotted part of
// the name; empty: the beginning alone decides.
struct EngineRow {
  std::string_view beginning;
  std::string_view parts;
  int code;
};
constexpr EngineRow kEngineRows[] = {
    {"TAV.Hash.", "", json::kEngineRdaOld},
    {"TAV.", "", json::kEngineRda},
    {"Heuristics.", "", json::kEngineUmb},
    {"BC.", "", json::kEngineBytecode},
    {"PUA.", "", json::kEngineUnwanted},
    {"", "Js Vbs Php Ps1 Html Asp Perl Py Sh Script", json::kEngineIxo},
    {"", "Doc Xls Ppt Pdf Rtf Ole2 Docx Xml Email Hwp", json::kEngineDocument},
    {"", "", json::kEngineHc},
};

// The kind of risk: the first row of which one part is a dotted part of the name.
struct RiskRow {
  std::string_view parts;
  json::RiskType type;
  const char* name;
};
constexpr RiskRow kRiskRows[] = {
    {"Test TEST Eicar EICAR Eicar-Test-Signature", json::RiskType::kTestFile, "测试文件"},
    {"Heuristics", json::RiskType::kHeuristic, "可疑文件"},
    {"PUA", json::RiskType::kHeuristic, "潜在有害程序"},
    {"Ransomware Ransom", json::RiskType::kVirus, "勒索病毒"},
    {"Trojan Dropper Downloader Spyware Keylogger Infostealer Packed", json::RiskType::kVirus, "木马"},
    {"Backdoor Rootkit Webshell Botnet", json::RiskType::kVirus, "后门"},
    {"Worm", json::RiskType::kVirus, "蠕虫"},
    {"Exploit", json::RiskType::kVirus, "漏洞利用程序"},
    {"Coinminer Miner", json::RiskType::kVirus, "挖矿程序"},
    {"Phishing", json::RiskType::kVirus, "钓鱼文件"},
    {"Adware", json::RiskType::kVirus, "广告程序"},
    {"Macro", json::RiskType::kVirus, "宏病毒"},
    {"", json::RiskType::kVirus, "病毒"},
};

bool hasAnyPart(std::string_view name, std::string_view parts) {
  const auto wanted = CStr::split(parts, ' '), dotted = CStr::split(name, '.');
  return std::find_first_of(dotted.begin(), dotted.end(), wanted.begin(), wanted.end()) != dotted.end();
}

int engineOf(std::string_view name) {
  const auto* row = std::find_if(std::begin(kEngineRows), std::end(kEngineRows), [&](const EngineRow& r) {
    return name.starts_with(r.beginning) && (r.parts.empty() || hasAnyPart(name, r.parts));
  });
  return row->code;  // the last row matches every name
}

const RiskRow& riskOf(std::string_view name) {
  return *std::find_if(std::begin(kRiskRows), std::end(kRiskRows),
                       [&](const RiskRow& r) { return r.parts.empty() || hasAnyPart(name, r.parts); });
}

}  // namespace

Find readFind(std::string_view libraryName) {
  Find find;
  for (const auto& row : kNotScanned) {
    if (libraryName.starts_with(row.beginning)) {
      find.kind = FindKind::kNotScanned;
      find.reason = row.reason;
      return find;
    }
  }
  std::string_view name = libraryName;
  if (name.starts_with("TAV.") && name.ends_with(kUnofficial)) {
    name.remove_suffix(kUnofficial.size());
  }
  const auto& risk = riskOf(name);
  find.detection.name = std::string(name);
  find.detection.engineCode = engineOf(name);
  find.detection.riskType = risk.type;
  find.detection.riskTypeName = risk.name;
  if (risk.type == json::RiskType::kHeuristic) {
    find.kind = FindKind::kHeuristic;
  }
  return find;
}

}  // namespace agent
