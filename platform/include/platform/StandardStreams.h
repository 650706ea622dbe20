#pragma once

namespace platform {

/// Opens /dev/null as whatever of standard input, output and error is closed, so that nothing that this
/// process opens later gets their numbers and is read, or written over, by mistake. Programs that it starts
/// inherit them as any other. The first thing in main: before another thread, before anything is opened.
void openClosedStandardStreams();

}  // namespace platform
