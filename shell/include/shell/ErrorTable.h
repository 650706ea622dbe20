#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The messages behind the negative results of commands, in blocks of a thousand a command family. Made on
/// first use, never freed. Main thread only.
class ErrorTable {
 public:
  static ErrorTable& instance();
  /// Prints the code's message in the error colour; nothing for a code without one.
  void print(std::int32_t code) const;
  /// Null for a code without a message.
  const std::string* find(std::int32_t code) const;

 private:
  ErrorTable();
  std::map<std::int32_t, std::string> messages_;
};
