#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/CLogDebug.h"
#include "support/ConsoleLink.h"
#include "support/Json.h"
#include "support/ProcessShell.h"
#include "support/ScriptedAgent.h"
#include "support/TempDir.h"

/// A command line against a scripted agent over the real bus, with the debug log caught.
class AgentCommand : public testing::Test {
 protected:
  AgentCommand() {
    CLogDebug* const log = CLogDebug::Create();
    log->SetProperty(CLogDebug::kName, "commands");
    log->SetProperty(CLogDebug::kPath, logs_.path());
    log->SetProperty(CLogDebug::kLevel, "1");
  }
  ~AgentCommand() override { CLogDebug::Close(); }

  std::string debugLog() const { return testsupport::readFile(logs_.at("commands.log")); }

  /// The agent never answers that method, and the console waits for less than it does otherwise.
  void keepSilentAt(const char* method) {
    agent_.neverAnswer(method);
    link_.setTimeout(100);
  }

  testsupport::TempDir logs_;
  testsupport::TempDir tree_;
  testsupport::ScriptedAgent agent_{tree_.path()};
  testsupport::ConsoleLink link_{tree_.path()};
};

using testsupport::jsonOf;

/// Forty hyphens and a line end, behind each item of a list.
inline const std::string kItemRule = std::string(40, '-') + "\n";
