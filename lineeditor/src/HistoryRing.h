#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The ring of accepted lines. An empty slot is an empty string; the oldest entry is in slot historyCount
/// modulo 256. Main thread only.
namespace lineeditor {

inline constexpr std::size_t kHistorySlots = 256;
inline constexpr std::size_t kHistorySlotBytes = 4096;

extern char historyRing[kHistorySlots][kHistorySlotBytes];
extern std::uint32_t historyCount;  ///< entries ever stored since the last clear
extern std::string lastPatterns;    ///< of the most recent search; at most 4095 bytes

/// Stores the text, cut to a slot's size, as the newest entry.
void historyStore(std::string_view text);
/// What Enter does: not for an empty line, "history", or the newest entry once more.
void historyAdd(std::string_view line);
/// Slots that hold an entry, oldest first.
std::vector<std::size_t> historySlots();

/// At most 16 tokens in lower case; one that begins with a minus must not occur.
std::vector<std::string> patternTokens(std::string_view patterns);
bool matchesPatterns(std::string_view line, const std::vector<std::string>& tokens);

}  // namespace lineeditor
