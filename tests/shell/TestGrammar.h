#pragma once

#include <deque>
#include <string>
#include <vector>

#include "shell/CliTree.h"

/// A grammar made by a test. The handlers note each call as "NAME" or "NAME=value".
class TestGrammar {
 public:
  CliTree tree;
  std::vector<std::string> handled;
  std::uint8_t handlerResult = 1;

  /// flags: alternative and required, each "0" or "1". A null parent means the root.
  CliNodeInfo* add(CliNodeInfo* parent, const std::string& name, const std::string& flags,
                   std::int32_t valueKind = 0, const std::string& help = "", const std::string& hint = "") {
    CliNodeInfo& info = records_.emplace_back(name, static_cast<std::uint8_t>(flags.at(0) == '1'),
                                              static_cast<std::uint8_t>(flags.at(1) == '1'), valueKind);
    info.help = help;
    info.hint = hint;
    info.handler = [this](const CliNodeInfo& node, const std::string& value) {
      handled.push_back(node.valueKind == 0 ? node.name : node.name + "=" + value);
      return handlerResult;
    };
    tree.addChild(parent == nullptr ? tree.root() : parent, &info);
    return &info;
  }

 private:
  std::deque<CliNodeInfo> records_;
};

/// A command like those of the console, with two required options and an optional one, in any order. One
/// choice takes a value. Two other commands stand beside the command.
///   RUN MODE FAST | SLOW | AT <value>   (required)
///       HANDLE AUTO | ASK               (required)
///       EXTRA ON | OFF
///   STOP ID <value>
///   ZERO
class RunGrammar : public TestGrammar {
 public:
  RunGrammar() {
    CliNodeInfo* const run = add(nullptr, "RUN", "11", 0, "run it");
    CliNodeInfo* const mode = add(run, "MODE", "01", 0, "how fast");
    add(mode, "FAST", "11", 0, "fast");
    add(mode, "SLOW", "11", 0, "slow");
    add(mode, "AT", "11", 2, "at a pace", "\" [pace]\"");
    CliNodeInfo* const handle = add(run, "HANDLE", "01", 0, "what then");
    add(handle, "AUTO", "11", 0, "by itself");
    add(handle, "ASK", "11", 0, "asks");
    CliNodeInfo* const extra = add(run, "EXTRA", "00", 0, "more");
    add(extra, "ON", "11", 0, "on");
    add(extra, "OFF", "11", 0, "off");
    CliNodeInfo* const stop = add(nullptr, "STOP", "11", 0, "stop it");
    add(stop, "ID", "11", 2, "which", "\" [id]\"");
    add(nullptr, "ZERO", "11", 0, "nothing");
  }
};
