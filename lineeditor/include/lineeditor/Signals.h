#pragma once

namespace lineeditor {

/// Installs the signal handlers of the console. Call once, before any other thread starts.
/// - SIGHUP, SIGTERM and SIGINT end the current and every later readLine like end of input. A signal that was
///   ignored when the process started stays ignored.
/// - A change of the window's size redraws the prompt.
/// - SIGPIPE is ignored, so a write to a broken pipe fails with an error.
/// - A signal that kills the process restores the terminal's settings first.
void installSignalHandlers();

/// True once SIGHUP, SIGTERM or SIGINT has arrived. Any thread.
bool endRequested();

}  // namespace lineeditor
