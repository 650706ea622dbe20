#include "TerminalIo.h"

#include "RealTerminal.h"

namespace lineeditor {

namespace {

RealTerminal realTerminal;
TerminalIo* currentTerminal = &realTerminal;

}  // namespace

TerminalIo& terminal() {
  return *currentTerminal;
}

void useTerminal(TerminalIo* replacement) {
  currentTerminal = replacement != nullptr ? replacement : &realTerminal;
}

}  // namespace lineeditor
