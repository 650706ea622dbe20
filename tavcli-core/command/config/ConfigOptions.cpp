#include "command/config/ConfigOptions.h"

#include "json/Values.h"

namespace command {

namespace {

using json::CloudScan;
using json::FixMethod;
using json::ProtectLevel;
using json::toNumber;

EndNode typed(const char* name, const char* help, const char* hint, const char* key, Typed as = Typed::kInt) {
  return {name, help, {}, hint, key, as, false};
}

/// For the agent's third way of handling, which this console does not offer.
EndNode detached(const char* name, const char* help, std::vector<Setting> writes) {
  return {name, help, std::move(writes), shell::kNoHint, nullptr, Typed::kInt, true};
}

std::vector<EndNode> onOff(const char* key) {
  return {{"ON", "开启", {{key, true}}}, {"OFF", "关闭", {{key, false}}}};
}

}  // namespace

const std::vector<ConfigOption>& configOptions() {
  static const auto* const options = new std::vector<ConfigOption>{
      // Resource limits are collected and never sent.
      {"COMMON RESMONITOR",
       "资源管理",
       {
           typed("APP", "程序资源阈值", "\"[int](5-100)\"", "PerformanceLocal", Typed::kReal),
           typed("SYS", "系统资源阈值", "\"[int](5-100)\"", "PerformanceGlobal", Typed::kReal),
           typed("MEM", "程序内存资源阈值", "\"[int](5-4096)\"", "MemoryLimitLocal", Typed::kReal),
       },
       shell::kAlternative},

      {"SCAN HANDLING",
       "默认处理方式",
       {{"AUTO", "系统自动处理", {{"FixMethod", toNumber(FixMethod::kAutomatic)}}},
        {"UPLOAD", "仅上报不处理", {{"FixMethod", toNumber(FixMethod::kReportOnly)}}},
        detached("MANUAL", "手动处理", {{"FixMethod", toNumber(FixMethod::kManual)}})}},
      {"SCAN INFECTION", "防感染模式", onOff("AntiInfection")},
      {"SCAN LIVESCANNIING", "活体扫描", onOff("MemCheck")},
      {"SCAN PROCHANDLING",
       "风险进程默认处理方式",
       {{"KILL", "终止", {{"FixMethod_MemRisk", toNumber(json::ProcessFix::kEnd)}}},
        {"IGNORE", "忽略", {{"FixMethod_MemRisk", toNumber(json::ProcessFix::kIgnore)}}}}},
      {"SCAN SCANCACHE", "是否开启扫描缓存加速", onOff("ScanWithCache")},
      {"SCAN FILETYPE",
       "扫描文件类型",
       {{"ALL", "全部文件", {{"ScanFileType", toNumber(json::ScanFileType::kEvery)}}},
        {"COMMON", "仅程序和文档", {{"ScanFileType", toNumber(json::ScanFileType::kProgramsAndDocuments)}}}}},
      {"SCAN SKIPSIZE", "跳过文件大小", {typed("SIZE", "大小", "\"[int]\"", "SkipSize")}},
      {"SCAN PARALLELISM", "扫描并行度", {typed("COUNT", "并行度", "\"[int](2-64)\"", "Parallelism")}},
      {"SCAN CLOUDSCANTYPE",
       "云查杀扫描类型",
       {{"ALL", "扫描所有文件", {{"CloudScanType", toNumber(CloudScan::kEvery)}}},
        {"ACTIVE", "仅扫描活跃文件", {{"CloudScanType", toNumber(CloudScan::kActive)}}}}},

      {"COMPRESS_SCAN LAYERACTIVE", "是否扫描压缩包", onOff("Flag")},
      {"COMPRESS_SCAN LAYER", "压缩包层数限制", {typed("DATA", "层数", "\"[int]\"", "Layer")}},
      {"COMPRESS_SCAN SIZE", "压缩包大小限制", {typed("DATA", "大小", "\"[int]\"", "FileSize")}},

      {"WATCHER HANDLING",
       "默认处理方式",
       {{"AUTO",
         "系统自动处理",
         {{"FixMethod", toNumber(FixMethod::kAutomatic)},
          {"HandleAction", toNumber(json::HandleAction::kClean)}}},
        {"UPLOAD",
         "仅上报不处理",
         {{"FixMethod", toNumber(FixMethod::kReportOnly)},
          {"HandleAction", toNumber(json::HandleAction::kNothing)}}},
        detached("MANUAL", "手动处理",
                 {{"FixMethod", toNumber(FixMethod::kManual)},
                  {"HandleAction", toNumber(json::HandleAction::kClean)}})}},
      {"WATCHER LEVEL",
       "防护级别",
       {{"HIGH", "高", {{"ProtectLevel", toNumber(ProtectLevel::kHigh)}}},
        {"MIDDLE", "中", {{"ProtectLevel", toNumber(ProtectLevel::kMiddle)}}},
        {"LOW", "低", {{"ProtectLevel", toNumber(ProtectLevel::kLow)}}}}},
      {"WATCHER FILETYPE",
       "防护文件类型",
       {{"ALL", "全部文件", {{"ScanFileType", toNumber(json::ScanFileType::kEvery)}}},
        {"COMMON", "仅程序和文档", {{"ScanFileType", toNumber(json::ScanFileType::kProgramsAndDocuments)}}}}},
      {"WATCHER SKIPSIZE", "跳过文件大小", {typed("SIZE", "大小", "\"[int]\"", "SkipSize")}},
      {"WATCHER ACTIVE", "是否开启文件防护", onOff("Flag")},
      {"WATCHER SCANCACHE", "是否开启扫描缓存加速", onOff("ScanWithCache")},
      {"WATCHER SKIPACTIVE", "是否开启文件大小限制", {{"ON", "开启", {}}, {"OFF", "关闭", {}}}},
      {"WATCHER CLOUDSCANTYPE",
       "云查杀扫描类型",
       {{"ALL", "扫描所有文件", {{"CloudScanType", toNumber(CloudScan::kEvery)}}},
        {"ACTIVE", "仅扫描活跃文件", {{"CloudScanType", toNumber(CloudScan::kActive)}}}}},
      {"WATCHER TRACESOURCE",
       "文件溯源开关",
       {{"ON", "开启", {{"FileTraceSourceType", toNumber(json::FileTrace::kOn)}}},
        {"OFF", "关闭", {{"FileTraceSourceType", toNumber(json::FileTrace::kOff)}}}}},

      {"COMPRESS_WATCHER ACTIVE", "是否开启压缩包监控", onOff("Flag")},
      {"COMPRESS_WATCHER LAYER", "压缩包层数限制", {typed("DATA", "层数", "\"[int]\"", "Layer")}},
      {"COMPRESS_WATCHER SIZE", "压缩包大小限制", {typed("DATA", "大小", "\"[int]\"", "FileSize")}},
      {"COMPRESS_WATCHER PWDSKIP", "是否跳过含有密码的压缩包", onOff("SkipPass")},

      {"ENGINE IXO", "IXO脚本查杀引擎", {}},
      {"ENGINE IXO SCAN", "病毒查杀", onOff("IXOengine")},
      {"ENGINE IXO RP", "实时防护", onOff("IXOengineRP")},
      {"ENGINE UMB", "UMB启发式查杀引擎", {}},
      {"ENGINE UMB SCAN", "病毒查杀", onOff("UMBengine")},
      {"ENGINE UMB RP", "实时防护", onOff("UMBengineRP")},
      {"ENGINE HC", "鸿隼大数据查杀引擎", {}},
      {"ENGINE HC SCAN", "病毒查杀", onOff("HCengine")},
      {"ENGINE HC RP", "实时防护", onOff("HCengineRP")},
      {"ENGINE RDA", "RDAII人工智能引擎", {}},
      {"ENGINE RDA SCAN", "病毒查杀", onOff("RDAengine")},
      {"ENGINE RDA RP", "实时防护", onOff("RDAengineRP")},
      {"ENGINE RDA_OLD", "RDA人工智能引擎（旧模型）", {}},
      {"ENGINE RDA_OLD SCAN", "病毒查杀", onOff("RDAOLDengine")},
      {"ENGINE RDA_OLD RP", "实时防护", onOff("RDAOLDengineRP")},
      {"ENGINE CLOUD",
       "云查杀引擎",
       {{"ON", "开启", {{"CloudEngine", true}, {"CloudEngineRP", true}}},
        {"OFF", "关闭", {{"CloudEngine", false}, {"CloudEngineRP", false}}}}},
  };
  return *options;
}

}  // namespace command
