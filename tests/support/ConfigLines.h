#pragma once

#include <ostream>

namespace testsupport {

inline constexpr int kNothingSent = -1;

/// A command line and the change that reaches the agent.
struct Change {
  const char* line;
  int configType;
  const char* text;
  const char* name = nullptr;  ///< what the line proves; null: the line names itself
};

inline void PrintTo(const Change& change, std::ostream* out) {
  *out << change.line;
}

/// Every end of the grammar below CONFIG MODIFY, with a value in range.
inline const Change kConfigLines[] = {
    {"CONFIG MODIFY COMMON RESMONITOR APP 50", kNothingSent, ""},
    {"CONFIG MODIFY COMMON RESMONITOR SYS 50", kNothingSent, ""},
    {"CONFIG MODIFY COMMON RESMONITOR MEM 50", kNothingSent, ""},
    {"CONFIG MODIFY SCAN HANDLING AUTO", 0, R"({"Common":{"FixMethod":0}})"},
    {"CONFIG MODIFY SCAN HANDLING UPLOAD", 0, R"({"Common":{"FixMethod":2}})"},
    {"CONFIG MODIFY SCAN INFECTION ON", 0, R"({"Common":{"AntiInfection":true}})"},
    {"CONFIG MODIFY SCAN INFECTION OFF", 0, R"({"Common":{"AntiInfection":false}})"},
    {"CONFIG MODIFY SCAN LIVESCANNIING ON", 0, R"({"Common":{"MemCheck":true}})"},
    {"CONFIG MODIFY SCAN LIVESCANNIING OFF", 0, R"({"Common":{"MemCheck":false}})"},
    {"CONFIG MODIFY SCAN PROCHANDLING KILL", 0, R"({"Common":{"FixMethod_MemRisk":1}})"},
    {"CONFIG MODIFY SCAN PROCHANDLING IGNORE", 0, R"({"Common":{"FixMethod_MemRisk":0}})"},
    {"CONFIG MODIFY SCAN SCANCACHE ON", 0, R"({"Common":{"ScanWithCache":true}})"},
    {"CONFIG MODIFY SCAN SCANCACHE OFF", 0, R"({"Common":{"ScanWithCache":false}})"},
    {"CONFIG MODIFY SCAN FILETYPE ALL", 0, R"({"Common":{"ScanFileType":1}})"},
    {"CONFIG MODIFY SCAN FILETYPE COMMON", 0, R"({"Common":{"ScanFileType":2}})"},
    {"CONFIG MODIFY SCAN SKIPSIZE SIZE 8", 0, R"({"Common":{"SkipSize":8}})"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT 8", 0, R"({"Common":{"Parallelism":8}})"},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ALL", 0, R"({"Common":{"CloudScanType":0}})"},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ACTIVE", 0, R"({"Common":{"CloudScanType":1}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE ON", 0, R"({"Compressed":{"Flag":true}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE OFF", 0, R"({"Compressed":{"Flag":false}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYER DATA 8", 0, R"({"Compressed":{"Layer":8}})"},
    {"CONFIG MODIFY COMPRESS_SCAN SIZE DATA 8", 0, R"({"Compressed":{"FileSize":8}})"},
    {"CONFIG MODIFY WATCHER HANDLING AUTO", 1, R"({"Common":{"FixMethod":0,"HandleAction":0}})"},
    {"CONFIG MODIFY WATCHER HANDLING UPLOAD", 1, R"({"Common":{"FixMethod":2,"HandleAction":3}})"},
    {"CONFIG MODIFY WATCHER LEVEL HIGH", 1, R"({"Common":{"ProtectLevel":0}})"},
    {"CONFIG MODIFY WATCHER LEVEL MIDDLE", 1, R"({"Common":{"ProtectLevel":1}})"},
    {"CONFIG MODIFY WATCHER LEVEL LOW", 1, R"({"Common":{"ProtectLevel":2}})"},
    {"CONFIG MODIFY WATCHER FILETYPE ALL", 1, R"({"Common":{"ScanFileType":1}})"},
    {"CONFIG MODIFY WATCHER FILETYPE COMMON", 1, R"({"Common":{"ScanFileType":2}})"},
    {"CONFIG MODIFY WATCHER SKIPSIZE SIZE 8", 1, R"({"Common":{"SkipSize":8}})"},
    {"CONFIG MODIFY WATCHER ACTIVE ON", 1, R"({"Common":{"Flag":true}})"},
    {"CONFIG MODIFY WATCHER ACTIVE OFF", 1, R"({"Common":{"Flag":false}})"},
    {"CONFIG MODIFY WATCHER SCANCACHE ON", 1, R"({"Common":{"ScanWithCache":true}})"},
    {"CONFIG MODIFY WATCHER SCANCACHE OFF", 1, R"({"Common":{"ScanWithCache":false}})"},
    {"CONFIG MODIFY WATCHER SKIPACTIVE ON", 1, R"({"Common":null})"},
    {"CONFIG MODIFY WATCHER SKIPACTIVE OFF", 1, R"({"Common":null})"},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ALL", 1, R"({"Common":{"CloudScanType":0}})"},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ACTIVE", 1, R"({"Common":{"CloudScanType":1}})"},
    {"CONFIG MODIFY WATCHER TRACESOURCE ON", 1, R"({"Common":{"FileTraceSourceType":1}})"},
    {"CONFIG MODIFY WATCHER TRACESOURCE OFF", 1, R"({"Common":{"FileTraceSourceType":0}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE ON", 1, R"({"Compressed":{"Flag":true}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE OFF", 1, R"({"Compressed":{"Flag":false}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER LAYER DATA 8", 1, R"({"Compressed":{"Layer":8}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER SIZE DATA 8", 1, R"({"Compressed":{"FileSize":8}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP ON", 1, R"({"Compressed":{"SkipPass":true}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP OFF", 1, R"({"Compressed":{"SkipPass":false}})"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON", 4, R"({"MultiEngines":{"IXOengine":true}})"},
    {"CONFIG MODIFY ENGINE IXO SCAN OFF", 4, R"({"MultiEngines":{"IXOengine":false}})"},
    {"CONFIG MODIFY ENGINE IXO RP ON", 4, R"({"MultiEngines":{"IXOengineRP":true}})"},
    {"CONFIG MODIFY ENGINE IXO RP OFF", 4, R"({"MultiEngines":{"IXOengineRP":false}})"},
    {"CONFIG MODIFY ENGINE UMB SCAN ON", 4, R"({"MultiEngines":{"UMBengine":true}})"},
    {"CONFIG MODIFY ENGINE UMB SCAN OFF", 4, R"({"MultiEngines":{"UMBengine":false}})"},
    {"CONFIG MODIFY ENGINE UMB RP ON", 4, R"({"MultiEngines":{"UMBengineRP":true}})"},
    {"CONFIG MODIFY ENGINE UMB RP OFF", 4, R"({"MultiEngines":{"UMBengineRP":false}})"},
    {"CONFIG MODIFY ENGINE HC SCAN ON", 4, R"({"MultiEngines":{"HCengine":true}})"},
    {"CONFIG MODIFY ENGINE HC SCAN OFF", 4, R"({"MultiEngines":{"HCengine":false}})"},
    {"CONFIG MODIFY ENGINE HC RP ON", 4, R"({"MultiEngines":{"HCengineRP":true}})"},
    {"CONFIG MODIFY ENGINE HC RP OFF", 4, R"({"MultiEngines":{"HCengineRP":false}})"},
    {"CONFIG MODIFY ENGINE RDA SCAN ON", 4, R"({"MultiEngines":{"RDAengine":true}})"},
    {"CONFIG MODIFY ENGINE RDA SCAN OFF", 4, R"({"MultiEngines":{"RDAengine":false}})"},
    {"CONFIG MODIFY ENGINE RDA RP ON", 4, R"({"MultiEngines":{"RDAengineRP":true}})"},
    {"CONFIG MODIFY ENGINE RDA RP OFF", 4, R"({"MultiEngines":{"RDAengineRP":false}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN ON", 4, R"({"MultiEngines":{"RDAOLDengine":true}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN OFF", 4, R"({"MultiEngines":{"RDAOLDengine":false}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD RP ON", 4, R"({"MultiEngines":{"RDAOLDengineRP":true}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD RP OFF", 4, R"({"MultiEngines":{"RDAOLDengineRP":false}})"},
    {"CONFIG MODIFY ENGINE CLOUD ON", 4,
     R"({"Cloud":{"Type":0},"MultiEngines":{"CloudEngine":true,"CloudEngineRP":true}})"},
    {"CONFIG MODIFY ENGINE CLOUD OFF", 4, R"({"MultiEngines":{"CloudEngine":false,"CloudEngineRP":false}})"},
};

}  // namespace testsupport
