#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

/// The numbers with a meaning on the bus and in the settings, as types. Both sides use the enumerators; only
/// toNumber and fromNumber convert between an enumerator and its number. All functions are pure.
namespace json {

/// "config_type": the settings document.
enum class ConfigType : std::int32_t { kScan = 0, kRealTime = 1, kQuarantine = 2, kEngines = 4 };

/// "source" and "request_source": the program that asks.
enum class RequestSource : std::int32_t { kConsole = 1 };

/// "type" of a task, and "business_type" of a notification about a risk.
enum class BusinessType : std::int32_t { kScan = 0 };

/// "state" of reportBusStatus.
enum class TaskState : std::int32_t {
  kNotCreated = -1,
  kCreated = 0,
  kStarted = 1,
  kFinished = 2,
  kPaused = 3,
  kResumed = 4,
  kAborted = 5,
  kSameModeExists = 6
};

/// "action" of ctlBus.
enum class ControlAction : std::int32_t { kStop = 1, kPause = 2, kResume = 3 };

/// "scan_type" without strong scan; strong scan adds kStrongScan.
enum class ScanMode : std::int32_t { kFast = 0, kFull = 1, kCustom = 2 };
inline constexpr std::int32_t kStrongScan = 3;

/// "risk_info_type" of a notification about a risk.
enum class RiskInfoType : std::int32_t { kProcess = 3, kFile = 5 };

/// "risk_type" of a detection.
enum class RiskType : std::int32_t { kVirus = 0, kTestFile = 1, kHeuristic = 2, kRejected = 3 };

/// "finder" of a risk. Every other number counts as kScan.
enum class Finder : std::int32_t { kScan = 0, kRealTime = 2, kUsb = 3 };

/// "handle_result": the outcome of handling a detection.
enum class HandleResult : std::int32_t {
  kQuarantined = 1,
  kProcessEnded = 2,
  kReportedOnly = 3,
  kFailed = 4,
  kTrusted = 6,
  kIgnored = 7
};

/// "handle_action" of a scan request and "HandleAction" of the settings: the automatic handling of a file.
/// kByAgent, in requests only: the agent's settings decide.
enum class HandleAction : std::int32_t {
  kByAgent = -1,
  kClean = 0,
  kDelete = 1,
  kQuarantine = 2,
  kNothing = 3
};

/// "proc_fix_method" of a scan request and "FixMethod_MemRisk" of the settings: the handling of a process.
enum class ProcessFix : std::int32_t { kIgnore = 0, kEnd = 1 };

/// "FixMethod" of the settings: what a user can choose. See Handling.
enum class FixMethod : std::int32_t { kAutomatic = 0, kManual = 1, kReportOnly = 2 };

/// "CloudScanType" of the settings.
enum class CloudScan : std::int32_t { kEvery = 0, kActive = 1 };

/// "ProtectLevel" of the settings of real-time protection.
enum class ProtectLevel : std::int32_t { kHigh = 0, kMiddle = 1, kLow = 2 };

/// "FileTraceSourceType" of the settings of real-time protection.
enum class FileTrace : std::int32_t { kOff = 0, kOn = 1 };

/// "Type" of the settings' section "Cloud".
enum class CloudType : std::int32_t { kPublic = 0, kPublicByProxy = 1, kPrivate = 2, kNone = 3 };

/// "ScanFileType" of the settings.
enum class ScanFileType : std::int32_t { kEvery = 1, kProgramsAndDocuments = 2 };

/// "CleanType" of the settings: the quarantine deletes old items, or items down to a free share.
enum class CleanType : std::int32_t { kByAge = 0, kByRate = 1 };

/// "CleanUnit" of the settings: the unit of "CleanTime".
enum class CleanUnit : std::int32_t { kYear = 0, kMonth = 1, kDay = 2, kWeek = 3 };

/// "region_type": the trust list or the reject list.
enum class Region : std::int32_t { kTrust = 0, kReject = 1 };

/// "action" of a change of a region.
enum class RegionAction : std::int32_t { kAdd = 0, kDelete = 1 };

/// "domain" of a region's entry. kEvery: in queries only.
enum class RegionDomain : std::int32_t { kPersonal = 0, kGlobal = 1, kEvery = 4 };

/// "item_type" of a region's entry, and "type" of a change.
enum class RegionItemType : std::int32_t {
  kFile = 0,
  kFolder = 1,
  kExtension = 2,
  kMd5 = 3,
  kName = 4,
  kSha1 = 5,
  kSha256 = 6
};

/// "valid_statue" of a region's entry. Every other number counts as kExpired.
enum class RegionValidity : std::int32_t { kValid = 0, kForEver = 1, kExpired = 2 };

/// "action" of startDeIsolate.
enum class RestoreAction : std::int32_t { kRestore = 1, kRestoreAndTrust = 2 };

/// The enumerators of E, in the order of their numbers.
template <class E>
inline constexpr std::array<E, 0> kValuesOf{};
#define ENUMERATORS_OF(E, ...)              \
  template <>                               \
  inline constexpr auto kValuesOf<E> = [] { \
    using enum E;                           \
    return std::array{__VA_ARGS__};         \
  }()
ENUMERATORS_OF(ConfigType, kScan, kRealTime, kQuarantine, kEngines);
ENUMERATORS_OF(RequestSource, kConsole);
ENUMERATORS_OF(BusinessType, kScan);
ENUMERATORS_OF(TaskState, kNotCreated, kCreated, kStarted, kFinished, kPaused, kResumed, kAborted,
               kSameModeExists);
ENUMERATORS_OF(ControlAction, kStop, kPause, kResume);
ENUMERATORS_OF(ScanMode, kFast, kFull, kCustom);
ENUMERATORS_OF(RiskInfoType, kProcess, kFile);
ENUMERATORS_OF(RiskType, kVirus, kTestFile, kHeuristic, kRejected);
ENUMERATORS_OF(Finder, kScan, kRealTime, kUsb);
ENUMERATORS_OF(HandleResult, kQuarantined, kProcessEnded, kReportedOnly, kFailed, kTrusted, kIgnored);
ENUMERATORS_OF(HandleAction, kByAgent, kClean, kDelete, kQuarantine, kNothing);
ENUMERATORS_OF(ProcessFix, kIgnore, kEnd);
ENUMERATORS_OF(FixMethod, kAutomatic, kManual, kReportOnly);
ENUMERATORS_OF(CloudScan, kEvery, kActive);
ENUMERATORS_OF(ProtectLevel, kHigh, kMiddle, kLow);
ENUMERATORS_OF(FileTrace, kOff, kOn);
ENUMERATORS_OF(CloudType, kPublic, kPublicByProxy, kPrivate, kNone);
ENUMERATORS_OF(ScanFileType, kEvery, kProgramsAndDocuments);
ENUMERATORS_OF(CleanType, kByAge, kByRate);
ENUMERATORS_OF(CleanUnit, kYear, kMonth, kDay, kWeek);
ENUMERATORS_OF(Region, kTrust, kReject);
ENUMERATORS_OF(RegionAction, kAdd, kDelete);
ENUMERATORS_OF(RegionDomain, kPersonal, kGlobal, kEvery);
ENUMERATORS_OF(RegionItemType, kFile, kFolder, kExtension, kMd5, kName, kSha1, kSha256);
ENUMERATORS_OF(RegionValidity, kValid, kForEver, kExpired);
ENUMERATORS_OF(RestoreAction, kRestore, kRestoreAndTrust);
#undef ENUMERATORS_OF

template <class E>
constexpr std::int32_t toNumber(E value) {
  static_assert(!kValuesOf<E>.empty());
  return static_cast<std::int32_t>(value);
}

/// Nothing for an unknown number: the caller decides about its meaning.
template <class E>
constexpr std::optional<E> fromNumber(std::int64_t number) {
  static_assert(!kValuesOf<E>.empty());
  const auto found = std::find_if(kValuesOf<E>.begin(), kValuesOf<E>.end(),
                                  [number](E value) { return toNumber(value) == number; });
  return found == kValuesOf<E>.end() ? std::nullopt : std::optional<E>(*found);
}

/// Whether a scan handles a detected file or only reports it. The wire and the settings have four encodings;
/// only the functions below know their numbers.
enum class Handling { kAutomatic, kReportOnly };

/// "fix_method" of a scan request and of the notifications: 0 automatic, 2 report only.
constexpr std::int32_t toFixMethod(Handling handling) {
  return toNumber(handling == Handling::kAutomatic ? FixMethod::kAutomatic : FixMethod::kReportOnly);
}
/// How the agent reads a "fix_method" or a "FixMethod": only 0 is automatic.
constexpr Handling handlingInForce(std::int64_t fixMethod) {
  return fixMethod == toNumber(FixMethod::kAutomatic) ? Handling::kAutomatic : Handling::kReportOnly;
}
/// How the console reads the setting "FixMethod": 1 and 2 are report only, every other number automatic.
constexpr Handling handlingOfSetting(std::int64_t fixMethod) {
  const std::optional<FixMethod> method = fromNumber<FixMethod>(fixMethod);
  return method && *method != FixMethod::kAutomatic ? Handling::kReportOnly : Handling::kAutomatic;
}
/// "fix_handle" of the batch report: 1 report only, 2 automatic.
constexpr std::int32_t toFixHandle(Handling handling) {
  return handling == Handling::kReportOnly ? 1 : 2;
}

/// "scan_type" of a request.
constexpr std::int32_t toScanType(ScanMode mode, bool strong) {
  return toNumber(mode) + (strong ? kStrongScan : 0);
}

}  // namespace json
