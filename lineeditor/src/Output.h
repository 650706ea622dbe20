#pragma once

#include <mutex>
#include <string_view>

namespace lineeditor {

/// Guards outputBuffer and the members of Display.
std::mutex& outputMutex();
/// The same as flushOutput(). The caller holds outputMutex().
void flushOutputLocked();

/// Appends the bytes to outputBuffer. Does nothing where the terminal is not usable.
void writeBuffered(std::string_view bytes);

}  // namespace lineeditor
