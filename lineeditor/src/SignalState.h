#pragma once

#include <termios.h>

/// The state shared by the signal handlers and the reader of the terminal. Defined in Signals.cpp.
namespace lineeditor::signals {

int wakeDescriptor();  ///< readable after a signal; -1 when no handlers are installed
void drainWake();
bool takeResized();    ///< true once after a change of the window's size
bool takeContinued();  ///< true once after SIGCONT
/// A signal that kills the process restores these settings.
void setSavedSettings(const termios& settings);
void clearSavedSettings();

}  // namespace lineeditor::signals
