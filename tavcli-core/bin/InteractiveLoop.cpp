#include "bin/InteractiveLoop.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string_view>

#include "bin/CommandLine.h"
#include "bin/Complain.h"
#include "lineeditor/History.h"
#include "lineeditor/LineEditor.h"
#include "lineeditor/Terminal.h"
#include "platform/ConstConfig.h"
#include "shell/ErrorTable.h"
#include "shell/HelpScreens.h"
#include "shell/TavCliCompletion.h"

namespace tavcli {

namespace {

constexpr const char* kPrompt = "TAV> ";

/// Runs a command. An exception of the command becomes a line for the user, and the prompt goes on.
std::int32_t executeGuarded(const char* line) {
  try {
    return TavCliCompletion::instance().executeLine(line);
  } catch (const std::exception& exception) {
    complain(std::string("tavcli: the command failed: ") + exception.what());
    return 0;
  }
}

/// Runs one line. False when the line ends the prompt.
bool handleLine(const char* line) {
  const std::int32_t result = executeGuarded(line);
  const std::string_view word = line;
  if (result < 0) {
    ErrorTable::instance().print(result);
  } else if (word == "history") {
    lineeditor::historyShow();
  } else if (word == "exit") {
    return false;
  }
  std::fflush(stdout);
  return true;
}

}  // namespace

void runInteractive() {
  lineeditor::setCompletionHook([](const char* text, lineeditor::CompletionState* state) {
    return TavCliCompletion::instance().completionHook(text, state);
  });
  lineeditor::setKeyHelp(showKeyHelp);
  const std::string historyPath = ConstConfig::singleInstance()->getLogDir() + "cli.history";
  lineeditor::historyLoad(historyPath.c_str());
  lineeditor::setPromptColour(lineeditor::kBrightGreen);
  std::array<char, kLineBufferBytes> buffer{};
  while (const char* line = lineeditor::readLine(kPrompt, buffer.data(), buffer.size())) {
    if (!handleLine(line)) {
      break;
    }
  }
  lineeditor::historySave(historyPath.c_str());
}

}  // namespace tavcli
