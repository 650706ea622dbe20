#pragma once

#include <cstdint>
#include <map>
#include <string>

/// The messages for the negative results of commands. Each command family has a block of a thousand codes.
/// The table is made on first use and never freed. Main thread only.
class ErrorTable {
 public:
  static ErrorTable& instance();
  /// Prints the message of the code in the error colour. Prints nothing for a code without a message.
  void print(std::int32_t code) const;
  /// Null for a code without a message.
  const std::string* find(std::int32_t code) const;

 private:
  ErrorTable();
  std::map<std::int32_t, std::string> messages_;
};
