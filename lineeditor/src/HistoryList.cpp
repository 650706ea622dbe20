#include <cstdio>
#include <cstdlib>

#include "Display.h"
#include "HistoryRing.h"
#include "Question.h"
#include "lineeditor/History.h"
#include "lineeditor/Terminal.h"
#include "platform/Text.h"

namespace lineeditor {

namespace {

constexpr int kNumberColumns = 7;  ///< the columns of "%4d  ", plus one for the line end
constexpr std::size_t kMaxPatternBytes = 4095;
constexpr std::size_t kMaxIdBytes = 7;

const char* const kPatternHelp[] = {
    "Patterns are separated by ' ', patter match is case insensitive:",
    "  (Hint: use Ctrl-Y/Ctrl-V/Insert to paste last paterns)",
    "    select:   choose line including 'select'",
    "    -select:  choose line excluding 'select'",
    "    \"select from\":  choose line including \"select from\"",
    "    -\"select from\": choose line excluding \"select from\"",
    "Example:",
    "    \"select from\" where -\"order by\" -limit:  ",
    "         choose line including \"select from\" and 'where'",
    "         and excluding \"order by\" or 'limit'",
};

void showPatternHelp() {
  resetPager();
  for (const char* line : kPatternHelp) {
    Display::instance().print(std::string(line) + "\n");
    if (pageBreak(displayWidth(line) + 1) != 0) {
      return;
    }
  }
}

void printLine(std::FILE* stream, const std::string& line) {
  if (stream == stdout) {
    Display::instance().print(line);
  } else {
    std::fputs(line.c_str(), stream);
  }
}

std::string numberText(std::int32_t number) {
  char text[16];
  std::snprintf(text, sizeof text, "%4d  ", number);
  return text;
}

}  // namespace

std::int32_t historyList(std::FILE* stream, bool numbered, const char* patterns, std::int32_t select,
                         bool paged) {
  resetPager();
  const std::vector<std::string> tokens = patternTokens(patterns == nullptr ? "" : patterns);
  std::int32_t count = 0;
  for (const std::size_t slot : historySlots()) {
    const std::string_view entry = historyRing[slot];
    if (!matchesPatterns(entry, tokens)) {
      continue;
    }
    ++count;
    if (select >= 1) {
      if (count == select) {
        return static_cast<std::int32_t>(slot) + 1;
      }
      continue;
    }
    const std::string shown = platform::visibleText(entry);
    printLine(stream, (numbered ? numberText(count) : "") + shown + "\n");
    if (paged && pageBreak(displayWidth(shown) + (numbered ? kNumberColumns : 1)) != 0) {
      break;
    }
  }
  return count;
}

void historyShow() {
  historyList(stdout, true, nullptr, 0, true);
}

std::int32_t historySearch(const char* initialText) {
  Question question;
  question.prompt = "Input Patterns <F1> help: ";
  question.maxBytes = kMaxPatternBytes;
  question.initial = initialText == nullptr ? "" : initialText;
  question.toPaste = lastPatterns;
  question.help = showPatternHelp;
  const std::optional<std::string> patterns = ask(question);
  if (!patterns) {
    return 0;
  }
  lastPatterns = *patterns;
  const std::int32_t matches = historyList(stdout, true, patterns->c_str(), 0, true);
  if (matches == 0) {
    return 0;
  }
  question = Question{};
  question.prompt = "Input history id: ";
  question.maxBytes = kMaxIdBytes;
  question.initial = "1";
  const std::optional<std::string> id = ask(question);
  if (!id) {
    return 0;
  }
  const long number = std::strtol(id->c_str(), nullptr, 10);
  if (!id->empty() && (number < 1 || number > matches)) {
    Display::instance().print("Invalid history id: " + platform::visibleText(*id) + "\n");
    return 0;
  }
  const std::int32_t found =
      historyList(stdout, true, patterns->c_str(), static_cast<std::int32_t>(number), false);
  return id->empty() ? 0 : found;  // for an empty id, historyList() has listed the matches once more
}

}  // namespace lineeditor
