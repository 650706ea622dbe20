#include "platform/ProcessStat.h"

#include <cerrno>
#include <charconv>
#include <string_view>

#include "platform/Files.h"

namespace platform {

namespace {

constexpr int kParentField = 4;
constexpr int kStartTicksField = 22;

template <class Number>
bool readNumber(std::string_view field, Number& number) {
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
  return error == std::errc{} && end == field.data() + field.size();
}

}  // namespace

tl::expected<ProcessStat, NoProcessStat> parseProcessStat(const std::string& text) {
  // Field 2, the name, stands in parentheses and may itself hold parentheses and line ends.
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) {
    return tl::unexpected(NoProcessStat::kGone);
  }
  ProcessStat stat;
  stat.name = text.substr(open + 1, close - open - 1);
  std::string_view rest = std::string_view(text).substr(close + 1);
  bool whole = false;
  for (int field = 3; field <= kStartTicksField && rest.starts_with(' '); ++field) {
    rest.remove_prefix(1);
    const std::string_view value = rest.substr(0, rest.find_first_of(" \n"));
    rest.remove_prefix(value.size());
    if (field == kParentField && !readNumber(value, stat.parent)) {
      break;
    }
    whole = field == kStartTicksField && readNumber(value, stat.startTicks);
  }
  if (!whole) {
    return tl::unexpected(NoProcessStat::kGone);
  }
  return stat;
}

tl::expected<ProcessStat, NoProcessStat> processStat(pid_t pid) {
  const auto text = CFile::readAll("/proc/" + std::to_string(pid) + "/stat");
  if (!text) {
    const int error = text.error();
    const bool shortage = error == EMFILE || error == ENFILE || error == ENOMEM;
    return tl::unexpected(shortage ? NoProcessStat::kShortage : NoProcessStat::kGone);
  }
  return parseProcessStat(*text);
}

}  // namespace platform
