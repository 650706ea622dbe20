#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The ring of accepted lines. An empty slot holds an empty string. Slot historyCount modulo 256 is written
/// next; in a full ring, this slot holds the oldest entry. Main thread only.
namespace lineeditor {

inline constexpr std::size_t kHistorySlots = 256;
inline constexpr std::size_t kHistorySlotBytes = 4096;

extern char historyRing[kHistorySlots][kHistorySlotBytes];
extern std::uint32_t historyCount;  ///< entries stored since the last clear
extern std::string lastPatterns;    ///< the patterns of the most recent search; at most 4095 bytes

/// Stores the text as the newest entry, cut to the size of a slot.
void historyStore(std::string_view text);
/// Stores an accepted line, unless the line is empty, is "history", or equals the newest entry.
void historyAdd(std::string_view line);
/// The numbers of the slots that hold an entry, oldest entry first.
std::vector<std::size_t> historySlots();

/// Cuts the text of a search into at most 16 tokens in lower case.
std::vector<std::string> patternTokens(std::string_view patterns);
/// True when the line contains every token. A token that begins with a minus must not occur in the line.
bool matchesPatterns(std::string_view line, const std::vector<std::string>& tokens);

}  // namespace lineeditor
