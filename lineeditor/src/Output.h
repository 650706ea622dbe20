#pragma once

#include <mutex>
#include <string_view>

namespace lineeditor {

/// Guards outputBuffer and what Display knows of the terminal.
std::mutex& outputMutex();
/// Like flushOutput(), for who holds outputMutex().
void flushOutputLocked();

/// Appends to outputBuffer, where the terminal is usable.
void writeBuffered(std::string_view bytes);

}  // namespace lineeditor
