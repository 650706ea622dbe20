#include "command/scan/TavCliCmdScanExec.h"

#include <cstdio>

#include "command/scan/ScanRunState.h"
#include "command/scan/adaptor/CliScanCommunication.h"

namespace {

/// The handling of an unattended run, from the agent's settings.
json::Handling handlingFromSettings(int fixHandle) {
  return fixHandle == json::toFixHandle(json::Handling::kAutomatic) ? json::Handling::kAutomatic
                                                                    : json::Handling::kReportOnly;
}

}  // namespace

std::int32_t TavCliCmdScanExec::execute() {
  switch (action) {
    case kStart:
      start();
      return 0;
    case kStop:
    case kPause:
    case kResume:
      CliScanCommunication::action_ctlscan(token_id, static_cast<unsigned>(action));
      return 0;
    case kShow:
      CliScanCommunication::action_showscan();
      return 0;
    default:
      std::puts("debug:scan error");
      return -1;
  }
}

void TavCliCmdScanExec::start() const {
  json::Handling handling = handle == kAutomatic ? json::Handling::kAutomatic : json::Handling::kReportOnly;
  unsigned usedMode = static_cast<unsigned>(mode);
  ScanRunState& state = ScanRunState::instance();
  if (state.batch_mode() != 0) {
    // Unattended: the agent's settings decide the handling, not the command line.
    int setting = json::toFixHandle(json::Handling::kReportOnly);
    CliScanCommunication::get_scanconfig(setting);
    state.set_fix_handle(setting);
    handling = handlingFromSettings(setting);
    usedMode = kCustom;
  }
  state.start([&] {
    return CliScanCommunication::action_startscan(handling, usedMode, paths,
                                                  static_cast<unsigned>(special)) == 1;
  });
}
