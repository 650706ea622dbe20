#include "command/config/TavCliCmdConfigExec.h"

#include <string>

#include "command/config/comm/send/CliConfigCommunication.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "lineeditor/Signals.h"

namespace {

using Request = int (*)(const std::string& change);

/// The request that carries the change of a section.
struct Destination {
  TavCliCmdConfigExec::Section section;
  const char* wrapper;  ///< the member around the settings; null: none
  Request send;
};

constexpr Destination kDestinations[] = {
    {TavCliCmdConfigExec::kCommon, nullptr, CliConfigCommunication::action_avconfig_common_set},
    {TavCliCmdConfigExec::kScan, "Common", CliConfigCommunication::action_avconfig_scan_set},
    {TavCliCmdConfigExec::kCompressScan, "Compressed", CliConfigCommunication::action_avconfig_scan_set},
    {TavCliCmdConfigExec::kWatcher, "Common", CliConfigCommunication::action_avconfig_realprotect_set},
    {TavCliCmdConfigExec::kCompressWatcher, "Compressed",
     CliConfigCommunication::action_avconfig_realprotect_set},
    {TavCliCmdConfigExec::kEngine, "MultiEngines", CliConfigCommunication::action_avconfig_engines_set},
};

constexpr int kCompact = 1;

constexpr int (*kPages[])() = {
    CliConfigCommunication::action_scanconfig_show,
    CliConfigCommunication::action_isolationconfig_show,
    CliConfigCommunication::action_engineconfig_show,
    CliConfigCommunication::action_realprotectconfig_show,
};

/// Each page may wait for its answer until the call times out. A console that is asked to end stops asking.
void showAll() {
  for (const auto& show : kPages) {
    if (!lineeditor::endRequested()) {
      show();
    }
  }
}

Json::Value wrapped(const Destination& destination, const Json::Value& settings) {
  if (destination.wrapper == nullptr) {
    return settings;
  }
  Json::Value change(Json::objectValue);
  change[destination.wrapper] = settings;
  // The cloud engine needs a cloud.
  if (destination.section == TavCliCmdConfigExec::kEngine &&
      CppJson::readBool(settings, "CloudEngine", false)) {
    change["Cloud"]["Type"] = json::toNumber(json::CloudType::kPublic);
  }
  return change;
}

}  // namespace

std::int32_t TavCliCmdConfigExec::execute() {
  if (section == kShow) {
    showAll();
    return 0;
  }
  for (const Destination& destination : kDestinations) {
    if (destination.section == section) {
      std::string text;
      if (!CppJson::WriteJsonToString(wrapped(destination, settings), text, kCompact)) {
        return -1;
      }
      destination.send(text);
    }
  }
  return 0;
}
