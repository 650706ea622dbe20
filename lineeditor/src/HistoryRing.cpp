#include "HistoryRing.h"

#include <algorithm>
#include <cstring>

#include "Utf8.h"
#include "lineeditor/History.h"

namespace lineeditor {

char historyRing[kHistorySlots][kHistorySlotBytes];
std::uint32_t historyCount = 0;
std::string lastPatterns;

namespace {

constexpr std::size_t kMaxPatterns = 16;

}  // namespace

void historyStore(std::string_view text) {
  char* slot = historyRing[historyCount % kHistorySlots];
  const std::string_view kept = cutAtCharacter(text, kHistorySlotBytes - 1);
  std::memcpy(slot, kept.data(), kept.size());
  slot[kept.size()] = '\0';
  ++historyCount;
}

void historyAdd(std::string_view line) {
  if (line.empty() || line == "history") {
    return;
  }
  if (historyCount > 0 && line == historyRing[(historyCount - 1) % kHistorySlots]) {
    return;
  }
  historyStore(line);
}

void historyClear() {
  for (auto& slot : historyRing) {
    if (slot[0] != '\0') {  // writing to an unused slot would take memory
      std::memset(slot, 0, sizeof slot);
    }
  }
  historyCount = 0;
}

std::vector<std::size_t> historySlots() {
  std::vector<std::size_t> slots;
  for (std::size_t i = 0; i < kHistorySlots; ++i) {
    const std::size_t slot = (historyCount + i) % kHistorySlots;
    if (historyRing[slot][0] != '\0') {
      slots.push_back(slot);
    }
  }
  return slots;
}

std::vector<std::string> patternTokens(std::string_view patterns) {
  std::vector<std::string> tokens;
  std::size_t at = 0;
  while (tokens.size() < kMaxPatterns) {
    at = patterns.find_first_not_of(' ', at);
    if (at == std::string_view::npos) {
      break;
    }
    const bool excludes = patterns[at] == '-';
    const std::size_t quote = excludes ? at + 1 : at;
    std::string token;
    std::size_t end;
    if (quote < patterns.size() && patterns[quote] == '"') {
      end = std::min(patterns.find('"', quote + 1), patterns.size());
      token = (excludes ? "-" : "") + std::string(patterns.substr(quote + 1, end - quote - 1));
      end = std::min(end + 1, patterns.size());
    } else {
      end = std::min(patterns.find(' ', at), patterns.size());
      token = patterns.substr(at, end - at);
    }
    tokens.push_back(lowerCase(token));
    at = end;
  }
  return tokens;
}

bool matchesPatterns(std::string_view line, const std::vector<std::string>& tokens) {
  const std::string lower = lowerCase(line);
  for (const std::string& token : tokens) {
    const bool excludes = token.starts_with('-');
    const bool occurs = lower.find(token.substr(excludes ? 1 : 0)) != std::string::npos;
    if (occurs == excludes) {
      return false;
    }
  }
  return true;
}

}  // namespace lineeditor
