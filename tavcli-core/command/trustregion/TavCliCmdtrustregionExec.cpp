#include "command/trustregion/TavCliCmdtrustregionExec.h"

#include <cstdio>

#include "command/trustregion/comm/send/CliTrustRegionCommunication.h"

std::int32_t TavCliCmdtrustregionExec::execute() {
  switch (action) {
    case kAdd:
    case kDelete:
      CliTrustRegionCommunication::action_trustregionmodify(action, item_type, items);
      return 0;
    case kReport:
      CliTrustRegionCommunication::action_trustregionreport();
      return 0;
    default:
      std::puts("debug:trustregion error");
      return -1;
  }
}
