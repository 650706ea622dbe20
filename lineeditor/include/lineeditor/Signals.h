#pragma once

namespace lineeditor {

/// From here on SIGHUP, SIGTERM and SIGINT, unless the process was started with them ignored, end the current
/// and every later readLine as end of input does, a change of the window redraws, a broken pipe is an error
/// of the write, and a signal that kills the process gives the terminal back first. Call once, before threads
/// that must not see the default actions.
void installSignalHandlers();

/// True once one of the three has come. Any thread.
bool endRequested();

}  // namespace lineeditor
