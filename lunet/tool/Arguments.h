#pragma once

#include <string>
#include <vector>

#include "lunet/Guid.h"
#include "platform/Expected.h"

namespace lunetctl {

enum class Command { kList, kCall, kSend, kListen };

struct Arguments {
  bool help = false;
  std::string runtime;  ///< the install tree
  Command command = Command::kList;
  lunet::Guid guid{};
  std::string text;
};

/// The failure is the user's mistake, in one line.
platform::Expected<Arguments> parseArguments(const std::vector<std::string>& words);

std::string helpText();

}  // namespace lunetctl
