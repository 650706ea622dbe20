#pragma once

#include <termios.h>

/// What signal handlers leave for the reader of the terminal, and what they need of it.
namespace lineeditor::signals {

int wakeDescriptor();  ///< readable when a signal came; -1 when no handlers are installed
void drainWake();
bool takeResized();    ///< true once after the window changed
bool takeContinued();  ///< true once after SIGCONT
/// What a signal that kills the process puts back. Async-signal-safe.
void setSavedSettings(const termios& settings);
void clearSavedSettings();

}  // namespace lineeditor::signals
