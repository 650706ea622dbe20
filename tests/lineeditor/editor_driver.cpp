// The editor on a real terminal, without the console: a program for the pty tests and for a look by eye. The
// program prints each accepted line as "<line>". A line that starts with "!" is a command of runCommand().
//
//   editor_driver [--history FILE] [--notices MS]
#include <strings.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "lineeditor/History.h"
#include "lineeditor/LineEditor.h"
#include "lineeditor/Notices.h"
#include "lineeditor/Signals.h"
#include "lineeditor/Terminal.h"

namespace {

const char* const kWords[][2] = {{"SCAN", "扫描"},         {"CONFIG", "设置"},          {"CACHE", "缓存管理"},
                                 {"HELP", "显示帮助信息"}, {"HISTORY", "显示命令历史"}, {"QUIT", nullptr}};

volatile bool endless = true;

int overflowStack(int depth) {
  volatile char room[4096];
  room[0] = static_cast<char>(depth);
  return endless ? overflowStack(depth + 1) + room[0] : depth;
}

int completeWords(const char* text, lineeditor::CompletionState* state) {
  const std::string before = text;
  if (before == "PATH ") {
    lineeditor::setHint(state, " [string]", lineeditor::kWhiteOnCyan);
    return 1;
  }
  if (before == "overflow ") {
    return overflowStack(0);
  }
  if (before == "many ") {
    for (int i = 0; i < 200; ++i) {
      lineeditor::addCandidate(state, ("WORD" + std::to_string(1000 + i)).c_str(), lineeditor::kBrightYellow,
                               "帮助", lineeditor::kCyan);
    }
    return 1;
  }
  for (const auto& word : kWords) {
    if (strncasecmp(word[0], text, before.size()) == 0) {
      lineeditor::addCandidate(state, word[0], lineeditor::kBrightYellow, word[1], lineeditor::kCyan);
    }
  }
  return 1;
}

void showKeys() {
  lineeditor::resetPager();
  lineeditor::plainPrint(" \b\n");
  for (int i = 1; i <= 52; ++i) {
    const std::string line = " | key line " + std::to_string(i);
    lineeditor::plainPrint("%s\n", line.c_str());
    if (lineeditor::pageBreak(lineeditor::displayWidth(line) + 1) != 0) {
      return;
    }
  }
}

volatile std::sig_atomic_t goOn = 0;

/// SIGURG ends "!busy", and so does a signal that ends the console.
void endBusy(int /*signal*/) {
  goOn = 1;
}

void runCommand(const std::string& line) {
  if (line == "!error") {
    lineeditor::colourPrint(lineeditor::kBrightRed, "ERR: %s \n", "parameter error");
  } else if (line == "!list") {
    lineeditor::historyShow();
  } else if (line == "!busy") {
    lineeditor::plainPrint("busy\n");
    lineeditor::flushOutput();
    while (goOn == 0 && !lineeditor::endRequested()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  } else if (line == "!where") {
    int row = -1;
    int col = -1;
    const int result = lineeditor::cursorPosition(row, col);
    lineeditor::plainPrint("cursor %d %d %d\n", result, row, col);
  } else {
    lineeditor::plainPrint("<%s>\n", line.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string history;
  int noticeMs = 0;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--history") == 0) {
      history = argv[i + 1];
    } else if (std::strcmp(argv[i], "--notices") == 0) {
      noticeMs = std::atoi(argv[i + 1]);
    }
  }
  std::signal(SIGURG, endBusy);
  lineeditor::installSignalHandlers();
  lineeditor::setCompletionHook(completeWords);
  lineeditor::setKeyHelp(showKeys);
  lineeditor::setPromptColour(lineeditor::kBrightGreen);
  lineeditor::historyLoad(history.c_str());
  std::atomic<bool> stop{false};
  std::thread notices([&] {
    for (int i = 1; noticeMs > 0 && !stop.load(); ++i) {
      lineeditor::printNotice("\n扫描进度: " + std::to_string(i) + "%\n");
      std::this_thread::sleep_for(std::chrono::milliseconds(noticeMs));
    }
  });
  static char line[4096];
  while (lineeditor::readLine("TAV> ", line, sizeof line) != nullptr && std::strcmp(line, "exit") != 0) {
    runCommand(line);
  }
  stop.store(true);
  notices.join();
  const int saved = history.empty() ? 0 : lineeditor::historySave(history.c_str());
  lineeditor::restoreTerminal();
  return saved == 0 ? 0 : 1;
}
