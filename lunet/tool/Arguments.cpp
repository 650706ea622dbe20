#include "Arguments.h"

#include <algorithm>
#include <array>

#include "platform/Text.h"

namespace lunetctl {

namespace {

struct CommandRow {
  const char* word;
  Command command;
  std::size_t operands;
  const char* usage;
  const char* help;
};

constexpr std::array kCommands{
    CommandRow{"list", Command::kList, 0, "list", "endpoints alive: address, pid, user"},
    CommandRow{"call", Command::kCall, 2, "call GUID TEXT", "send TEXT on channel 10990, print the answer"},
    CommandRow{"send", Command::kSend, 2, "send GUID TEXT", "send TEXT on channel 20991, wait for no answer"},
    CommandRow{"listen", Command::kListen, 1, "listen GUID",
               "open that address on both channels and speak one JSON object a line:"},
};

constexpr const char* kListenHelp = R"(
Out, with listen:
  {"event":"ready"}
  {"event":"message","id":N,"channel":C,"peer":"GUID","data":"TEXT","wants_reply":true}
  {"event":"sent","error":E}                       after each "send"
  {"event":"answer","error":E,"data":"TEXT"}       after each "call"
  {"event":"error","message":"..."}                for a line that cannot be read or done
In, with listen (sends and calls are done one after the other, replies at once):
  {"reply":N,"data":"TEXT"}
  {"send":"GUID","channel":20991,"data":"TEXT"}
  {"call":"GUID","channel":10990,"data":"TEXT","timeout_ms":T}
The end of the input ends it. E is 0 or an error number of the bus. Bytes that are not UTF-8 show as U+FFFD.

Exit status: 0 done, 1 failed, 2 wrong usage.
)";

platform::Expected<void> parseCommand(const std::vector<std::string>& words, Arguments& arguments) {
  if (words.empty()) {
    return platform::failure("no command is given");
  }
  const auto row = std::find_if(kCommands.begin(), kCommands.end(),
                                [&](const CommandRow& each) { return words[0] == each.word; });
  if (row == kCommands.end()) {
    return platform::failure("there is no command \"" + platform::visibleText(words[0]) + "\"");
  }
  if (words.size() - 1 != row->operands) {
    return platform::failure(std::string("the command is: ") + row->usage);
  }
  arguments.command = row->command;
  if (row->operands > 0) {
    arguments.guid = lunet::parseGuid(words[1].c_str());
    if (arguments.guid == lunet::Guid{}) {
      return platform::failure("\"" + platform::visibleText(words[1]) + "\" is not a GUID");
    }
  }
  arguments.text = row->operands > 1 ? words[2] : "";
  return {};
}

}  // namespace

platform::Expected<Arguments> parseArguments(const std::vector<std::string>& words) {
  Arguments arguments;
  std::vector<std::string> rest;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool option = rest.empty() && words[i].starts_with("-");
    if (!option) {
      rest.push_back(words[i]);
    } else if (words[i] == "--help" || words[i] == "-h") {
      arguments.help = true;
      return arguments;
    } else if (words[i] != "--runtime") {
      return platform::failure("there is no option \"" + platform::visibleText(words[i]) + "\"");
    } else if (++i == words.size() || words[i].empty()) {
      return platform::failure("--runtime needs the folder of an install tree");
    } else {
      arguments.runtime = words[i];
    }
  }
  if (const auto parsed = parseCommand(rest, arguments); !parsed) {
    return platform::failure(parsed.error());
  }
  if (arguments.runtime.empty()) {
    return platform::failure("--runtime DIR is missing");
  }
  return arguments;
}

std::string helpText() {
  std::string text =
      "Usage: lunetctl --runtime DIR COMMAND\n"
      "Looks at the message bus of the install tree DIR, and takes part in it.\n\nCommands:\n";
  for (const CommandRow& row : kCommands) {
    std::string usage = row.usage;
    usage.resize(std::max<std::size_t>(usage.size(), 16), ' ');
    text += "  " + usage + row.help + "\n";
  }
  return text + kListenHelp;
}

}  // namespace lunetctl
