#include "command/isolation/TavCliCmdIsolationExec.h"

#include <cstdio>

#include "command/isolation/comm/send/CliIsolationCommunication.h"

std::int32_t TavCliCmdIsolationExec::execute() {
  switch (action) {
    case kRestore:
      CliIsolationCommunication::action_isolationrestore(item_ids, notrust);
      return 0;
    case kReport:
      CliIsolationCommunication::action_isolationreport();
      return 0;
    default:
      std::puts("debug:iso error");
      return -1;
  }
}
