#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace command {

/// The line behind each item of a list.
inline constexpr std::string_view kItemRule = "----------------------------------------\n";

/// Appends "label : value" and a line end.
inline void appendField(std::string& text, std::string_view label, std::string_view value) {
  text.append(label).append(" : ").append(value).append("\n");
}

/// Prints the text in one write, so that no other thread prints into the middle of the text.
inline void printText(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace command
