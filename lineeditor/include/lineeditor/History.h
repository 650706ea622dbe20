#pragma once

#include <cstdint>
#include <cstdio>

/// The lines accepted at the prompt: a ring of 256 entries of at most 4095 bytes, its file, its listing and
/// its search. Main thread only.
namespace lineeditor {

/// One entry a line; a line over 4095 bytes becomes several. -1 when the file cannot be read; nothing changes
/// then.
int historyLoad(const char* path);
/// Oldest first, mode 0600. The new file stands whole or the old one stays. -1 when it cannot be written.
int historySave(const char* path);
void historyClear();
/// All entries, numbered; paged when standard input is a terminal.
void historyShow();
/// Lists the entries that match the patterns (null: all), oldest first. select below 1: prints them and
/// returns how many; else prints nothing and returns the slot number plus one of the select-th match.
std::int32_t historyList(std::FILE* stream, bool numbered, const char* patterns, std::int32_t select,
                         bool paged);
/// Asks for patterns and an id. The chosen entry's slot number plus one, or 0.
std::int32_t historySearch(const char* initialText);
/// At most 63 characters; null changes nothing.
void setWordDelimiters(const char* text);

}  // namespace lineeditor
