#pragma once

#include <functional>
#include <string>

namespace tavcli {

/// Prints a line for the user of an unattended run when the agent is gone, and when the agent is back. One
/// thread.
class AgentWatch {
 public:
  AgentWatch(std::function<bool()> reachable, std::function<void(const std::string&)> complain)
      : reachable_(std::move(reachable)), complain_(std::move(complain)) {}

  /// Asks whether the agent can be reached, and writes a line when the answer has changed.
  void look();
  /// The same, but asks only when the agent was gone at the last look. For the end of a run: the run may have
  /// ended between the agent's return and the next look.
  void lookForReturn();

 private:
  std::function<bool()> reachable_;
  std::function<void(const std::string&)> complain_;
  bool up_ = true;
};

}  // namespace tavcli
