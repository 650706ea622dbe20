#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "lineeditor/Completion.h"

/// Reads lines at a prompt with full editing, for the interactive loop. The shell installs the completion
/// hook and the help for F1. Main thread only.
namespace lineeditor {

/// Writes the accepted line into buffer and returns buffer. The line has at most size - 1 bytes and ends with
/// a whole character. Returns null at end of input, on Ctrl-C (errno is then EAGAIN), after a signal that
/// ends the console, and on a bad call. noHistory: the line is not recorded, and the completion hook is not
/// called.
char* readLine(const char* prompt, char* buffer, std::size_t size, bool noHistory);
char* readLine(const char* prompt, char* buffer, std::size_t size);    ///< noHistory is false
char* readAnswer(const char* prompt, char* buffer, std::size_t size);  ///< noHistory is true

/// The editor calls the hook with the text before the cursor; the hook fills the state. The editor ignores
/// the result of the hook.
using CompletionHook = std::function<int(const char* text, CompletionState* state)>;
void setCompletionHook(CompletionHook hook);

/// F1 calls show, which prints the table of keys through the pager.
void setKeyHelp(std::function<void()> show);

void setPromptColour(std::uint32_t attribute);
/// Sets the characters that end a word for the word keys. Only the first 63 are used; null changes nothing.
void setWordDelimiters(const char* text);

}  // namespace lineeditor
