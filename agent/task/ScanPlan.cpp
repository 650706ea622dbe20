#include "task/ScanPlan.h"

#include <algorithm>

#include "json/CppJson.h"
#include "json/ScanRecords.h"

namespace agent {

namespace {

constexpr std::uint64_t kMegabyte = 1u << 20;
constexpr int kDefaultLayers = 16;
constexpr int kMostWorkers = 64;
constexpr std::size_t kMostItems = 1024;  // each is held open from the beginning of its scan
constexpr int kNotGiven = -1;
static_assert(kNotGiven == json::toNumber(json::HandleAction::kByAgent));

std::uint64_t megabytes(const Json::Value& section, const char* key) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(CppJson::readInt64(section, key, 0), 0)) *
         kMegabyte;
}

/// Refuses what the agent does not offer: a scan must not silently do less than the request.
platform::Expected<void> checkOffered(const JsonReflect::ScanParams& params) {
  if (params.scan_type() < 0 || params.scan_type() >= 2 * json::kStrongScan) {
    return platform::failure("unknown scan type " + std::to_string(params.scan_type()));
  }
  if (params.follow_link()) {
    return platform::failure("following symbolic links is not offered");
  }
  if (!params.handle_filter_types().empty()) {
    return platform::failure("handling by risk type is not offered");
  }
  if (params.expire_time() != 0) {
    return platform::failure("an expiry time is not offered");
  }
  if (params.fix_method() < 0 || params.fix_method() > 2) {
    return platform::failure("unknown handling method " + std::to_string(params.fix_method()));
  }
  if (params.handle_action() < kNotGiven || params.handle_action() > 3) {
    return platform::failure("unknown handling action " + std::to_string(params.handle_action()));
  }
  if (params.proc_fix_method() < 0 || params.proc_fix_method() > 1) {
    return platform::failure("unknown handling method for processes " +
                             std::to_string(params.proc_fix_method()));
  }
  if (params.parallelism() < 0 || params.parallelism() > kMostWorkers) {
    return platform::failure("parallelism must be 0 to " + std::to_string(kMostWorkers));
  }
  if (params.max_scan_sec() < 0) {
    return platform::failure("the time limit is negative");
  }
  return {};
}

/// The tolerant reads turn 0.7 and "none" into 0, which means automatic handling.
bool isWholeNumber(const Json::Value& value) {
  if (!value.isString()) {
    return value.isInt();
  }
  const std::string text = value.asString();
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

ScanOptions engineOptions(const Json::Value& compressed, const Json::Value& engines, bool strong) {
  ScanOptions options;
  options.archives = CppJson::readBool(compressed, "Flag", true);
  const int layers = CppJson::readInt(compressed, "Layer", kDefaultLayers);
  options.maxLayers = static_cast<std::uint32_t>(layers > 0 ? layers : kDefaultLayers);
  options.maxArchiveBytes = megabytes(compressed, "FileSize");
  const Json::Value formats = compressed.isObject() ? compressed["Format"] : Json::Value();
  if (formats.isArray()) {
    for (const Json::Value& format : formats) {
      options.archiveFormats.push_back(format.isString() ? format.asString() : "");
    }
  }
  options.enabledEngines = 0;
  for (int index = 0; index < json::kEngineCount; ++index) {
    const json::Engine& engine = json::engineAt(index);
    if (engine.scanKey == nullptr || CppJson::readBool(engines, engine.scanKey, true)) {
      options.enabledEngines |= 1u << engine.code;
    }
  }
  options.heuristics = strong;
  return options;
}

std::string cacheKeyOf(const ScanOptions& options) {
  std::string key = std::to_string(options.archives) + "/" + std::to_string(options.maxLayers) + "/" +
                    std::to_string(options.maxArchiveBytes) + "/" + std::to_string(options.enabledEngines) +
                    "/" + std::to_string(options.heuristics) + "/";
  for (const std::string& format : options.archiveFormats) {
    key += format + ",";
  }
  return key;
}

void setHandling(ScanPlan& plan, const JsonReflect::ScanParams& params, bool fixMethodAsked,
                 const Json::Value& common) {
  // The request decides; without its member, the agent's setting. Only 0 is automatic.
  const int fromSettings =
      CppJson::readInt(common, "FixMethod", json::toFixMethod(json::Handling::kReportOnly));
  plan.handling = json::handlingInForce(fixMethodAsked ? params.fix_method() : fromSettings);
  if (plan.handling == json::Handling::kAutomatic) {
    const auto asked = json::fromNumber<json::HandleAction>(params.handle_action());
    const auto own = json::fromNumber<json::HandleAction>(
        CppJson::readInt(common, "HandleAction", json::toNumber(json::HandleAction::kQuarantine)));
    const auto action = asked == json::HandleAction::kByAgent ? own : asked;
    plan.action = action && action != json::HandleAction::kByAgent ? *action : json::HandleAction::kNothing;
    constexpr std::int32_t kEnd = json::toNumber(json::ProcessFix::kEnd);
    plan.endProcesses =
        params.proc_fix_method() == kEnd || CppJson::readInt(common, "FixMethod_MemRisk", kNotGiven) == kEnd;
  }
}

}  // namespace

platform::Expected<ScanPlan> makePlan(const Json::Value& request, const Settings& settings) {
  JsonReflect::ScanParams params;
  params.set_handle_action(kNotGiven);
  if (!request.isObject() || !params.FromValue(request)) {
    return platform::failure("the scan parameters are no object");
  }
  const bool fixMethodAsked = request.isMember("fix_method");
  if (fixMethodAsked && !isWholeNumber(request["fix_method"])) {
    return platform::failure("the handling method is no number");
  }
  if (const auto offered = checkOffered(params); !offered) {
    return platform::failure(offered.error());
  }
  const Json::Value scan = settings.document(json::ConfigType::kScan);
  const Json::Value& common = scan["Common"];
  ScanPlan plan;
  plan.scanType = params.scan_type();
  plan.mode = static_cast<json::ScanMode>(params.scan_type() % json::kStrongScan);
  if (plan.mode == json::ScanMode::kCustom) {
    for (const std::string& item : params.items()) {
      plan.items.push_back(json::decodePath(item));
    }
    if (plan.items.empty()) {
      return platform::failure("no path was given");
    }
    if (plan.items.size() > kMostItems) {
      return platform::failure(std::to_string(plan.items.size()) + " paths were given, and one scan takes " +
                               std::to_string(kMostItems));
    }
  }
  const Json::Value engines = settings.document(json::ConfigType::kEngines)["MultiEngines"];
  plan.options = engineOptions(scan["Compressed"], engines, params.scan_type() >= json::kStrongScan);
  setHandling(plan, params, fixMethodAsked, common);
  plan.memoryCheck = CppJson::readBool(common, "MemCheck", false);
  plan.useCache = CppJson::readBool(common, "ScanWithCache", true);
  plan.readCache = plan.useCache && !params.force_scan();
  const int workers =
      params.parallelism() > 0 ? params.parallelism() : CppJson::readInt(common, "Parallelism", 0);
  plan.parallelism = static_cast<unsigned>(std::clamp(workers, 0, kMostWorkers));
  plan.skipBytes = megabytes(common, "SkipSize");
  plan.programsOnly = json::fromNumber<json::ScanFileType>(CppJson::readInt(
                          common, "ScanFileType", kNotGiven)) == json::ScanFileType::kProgramsAndDocuments;
  plan.networkFileSystems =
      plan.mode == json::ScanMode::kCustom || CppJson::readBool(common, "NetworkmapScan", false);
  plan.limit = std::chrono::seconds(params.max_scan_sec());
  plan.cacheKey = cacheKeyOf(plan.options);
  return plan;
}

}  // namespace agent
