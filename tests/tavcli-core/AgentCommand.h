#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/ConsoleLink.h"
#include "support/DebugLogFile.h"
#include "support/Json.h"
#include "support/ProcessShell.h"
#include "support/ScriptedAgent.h"
#include "support/TempDir.h"

/// A command line against a scripted agent on the real bus, with the debug log in a file of the test.
class AgentCommand : public testing::Test {
 protected:
  std::string debugLog() const { return log_.text(); }

  /// The agent never answers the method, and the console's timeout is short.
  void keepSilentAt(const char* method) {
    agent_.neverAnswer(method);
    link_.setTimeout(100);
  }

  testsupport::DebugLogFile log_;
  testsupport::TempDir tree_;
  testsupport::ScriptedAgent agent_{tree_.path()};
  testsupport::ConsoleLink link_{tree_.path()};
};

using testsupport::jsonOf;

/// Forty hyphens and a line end, behind each item of a list.
inline const std::string kItemRule = std::string(40, '-') + "\n";
