#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace command {

/// Behind each item of a list.
inline constexpr std::string_view kItemRule = "----------------------------------------\n";

/// "label : value" and a line end.
inline void appendField(std::string& text, std::string_view label, std::string_view value) {
  text.append(label).append(" : ").append(value).append("\n");
}

/// One block in one write, so that what another thread prints cannot part it.
inline void printText(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace command
