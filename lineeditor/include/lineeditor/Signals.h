#pragma once

namespace lineeditor {

/// Installs the signal handlers of the console. Call once, before any other thread starts.
/// - SIGHUP, SIGTERM and SIGINT end the current and every later readLine like end of input.
/// - A change of the window's size redraws the prompt.
/// - SIGPIPE is ignored, so a write to a broken pipe fails with an error.
/// - Each other signal that ends a process, SIGKILL excepted, restores the terminal's settings first. So does
///   an overflow of the calling thread's stack, and of a thread that has a platform::AlternateSignalStack.
/// - A signal that was ignored when the process started stays ignored, a fault of the program excepted.
void installSignalHandlers();

/// True once SIGHUP, SIGTERM or SIGINT has arrived. Any thread.
bool endRequested();

}  // namespace lineeditor
