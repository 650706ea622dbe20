#pragma once

#include <cstdint>
#include <cstdio>

/// The lines accepted at the prompt: a ring of 256 entries of at most 4095 bytes. The ring is in
/// HistoryRing.cpp, its file in HistoryFile.cpp, the listing and the search in HistoryList.cpp. Main thread
/// only.
namespace lineeditor {

/// Adds each line of the file as an entry; a line over 4095 bytes becomes several entries. Returns 0. When
/// the file cannot be read, the function returns -1 and the ring stays as it was.
int historyLoad(const char* path);
/// Writes all entries, oldest first, to a file of mode 0600. Returns 0. When the file cannot be written, the
/// function returns -1 and the old file stays whole.
int historySave(const char* path);
void historyClear();
/// Prints all entries with their numbers, page by page when standard input is a terminal.
void historyShow();
/// Visits the entries that match the patterns, oldest first; null patterns match every entry.
/// select below 1: prints the entries and returns their number.
/// select of 1 or more: prints nothing. Returns the slot number plus one of the select-th match; with fewer
/// matches, returns their number.
std::int32_t historyList(std::FILE* stream, bool numbered, const char* patterns, std::int32_t select,
                         bool paged);
/// Asks the user for patterns and for an id. Returns the slot number plus one of the entry chosen, or 0.
std::int32_t historySearch(const char* initialText);

}  // namespace lineeditor
