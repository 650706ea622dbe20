#pragma once

#include <functional>
#include <string>

namespace tavcli {

/// Tells the operator of an unattended run when the agent goes away and when it is back, one line each.
/// One thread.
class AgentWatch {
 public:
  AgentWatch(std::function<bool()> reachable, std::function<void(const std::string&)> complain)
      : reachable_(std::move(reachable)), complain_(std::move(complain)) {}

  /// Asks whether the agent can be reached; speaks when the answer is another than the last.
  void look();
  /// Asks only when the agent was away at the last look: its return is told even when what it reports then
  /// ends the run before the next look.
  void lookForReturn();

 private:
  std::function<bool()> reachable_;
  std::function<void(const std::string&)> complain_;
  bool up_ = true;
};

}  // namespace tavcli
