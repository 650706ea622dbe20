#include "support/Command.h"

#include <unistd.h>

#include <utility>

namespace testsupport {

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Command::Command(std::vector<std::string> words, const std::map<std::string, std::string>& environment)
    : words_(std::move(words)) {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string setting = *variable;
    if (!environment.contains(setting.substr(0, setting.find('=')))) {
      settings_.push_back(setting);
    }
  }
  for (const auto& [name, value] : environment) {
    if (!value.empty()) {
      settings_.push_back(name + "=" + value);
    }
  }
  arguments_ = pointersTo(words_);
  environment_ = pointersTo(settings_);
}

void Command::exec() {
  execvpe(arguments_[0], arguments_.data(), environment_.data());
  _exit(127);
}

}  // namespace testsupport
