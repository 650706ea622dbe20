#include "Output.h"

#include "TerminalIo.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

// The buffer and its lock are never destroyed: a notice may come while the program ends.
std::string& outputBuffer = *new std::string;

void writeBuffered(std::string_view bytes) {
  if (terminalUsable()) {
    const std::lock_guard guard(outputMutex());
    outputBuffer += bytes;
  }
}

std::mutex& outputMutex() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

void flushOutputLocked() {
  terminal().write(outputBuffer);
  outputBuffer.clear();
}

void flushOutput() {
  const std::lock_guard guard(outputMutex());
  flushOutputLocked();
}

}  // namespace lineeditor
