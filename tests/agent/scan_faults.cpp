// A worker template whose workers end, or never end, on the files whose names tell so.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "worker/ScannerProgram.h"

namespace {

constexpr int kFile = 4;  // the received file, behind the streams and the channel

void takeAllMemory() {
  std::vector<std::vector<char>> all;
  for (;;) {  // until an exception that nobody catches
    all.emplace_back(1U << 20, 'x');
  }
}

void loop() {
  for (;;) {
    getppid();  // a call that the filter allows
  }
}

// Waits until somebody writes to the file.
void waitForContent() {
  struct stat status {};
  while (fstat(kFile, &status) == 0 && status.st_size == 0) {
    usleep(1000);
  }
}

const struct {
  const char* beginning;  ///< of the file's name
  void (*fault)();
} kFaults[] = {
    {"crash", [] { raise(SIGSEGV); }}, {"stop", [] { raise(SIGSTOP); }},
    {"memory", takeAllMemory},         {"loop", loop},
    {"wait", waitForContent},
};

void misbehave(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  for (const auto& row : kFaults) {
    if (name.starts_with(row.beginning)) {
      row.fault();
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  agent::runScannerProgram(count, arguments, misbehave);
}
