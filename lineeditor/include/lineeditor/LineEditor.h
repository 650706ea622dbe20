#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "lineeditor/Completion.h"

/// Reads lines at a prompt with full editing. Used by the interactive loop; the shell gives it the completion
/// hook and the key table. Main thread only.
namespace lineeditor {

/// Gives the accepted line in buffer (at most size - 1 bytes and never ending in half a character), or null
/// at end of input, on Ctrl-C (errno is then EAGAIN), after a signal that ends the console, or on a bad call.
/// noHistory: the line is not recorded and the completion hook is not asked.
char* readLine(const char* prompt, char* buffer, std::size_t size, bool noHistory);
char* readLine(const char* prompt, char* buffer, std::size_t size);    ///< recorded
char* readAnswer(const char* prompt, char* buffer, std::size_t size);  ///< not recorded

/// Called with the text before the cursor; fills the state. The result is not looked at.
using CompletionHook = std::function<int(const char* text, CompletionState* state)>;
void setCompletionHook(CompletionHook hook);

/// Prints the table of keys through the pager; F1 calls it.
void setKeyHelp(std::function<void()> show);

void setPromptColour(std::uint32_t attribute);

}  // namespace lineeditor
