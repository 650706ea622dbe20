#include <array>
#include <ctime>

#include "platform/Text.h"

std::string CDateTime::format(std::int64_t secondsSinceEpoch) {
  const auto seconds = static_cast<std::time_t>(static_cast<std::uint32_t>(secondsSinceEpoch));
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, 32> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return {text.data(), length};
}

std::string CDateTime::now() {
  return format(std::time(nullptr));
}
