#pragma once

#include <string>
#include <vector>

#include "lunet/Guid.h"

namespace lunetctl {

enum class Command { kList, kCall, kSend, kListen };

struct Arguments {
  bool help = false;
  std::string runtime;  ///< the install tree
  Command command = Command::kList;
  lunet::Guid guid{};
  std::string text;
};

/// Empty when the words make sense, else one line that says what is wrong.
std::string parseArguments(const std::vector<std::string>& words, Arguments& arguments);

/// The whole help.
std::string helpText();

}  // namespace lunetctl
