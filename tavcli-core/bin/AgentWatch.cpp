#include "bin/AgentWatch.h"

namespace tavcli {

void AgentWatch::look() {
  const bool up = reachable_();
  if (up == up_) {
    return;
  }
  up_ = up;
  complain_(up ? "tavcli: the agent answers again" : "tavcli: the agent is gone; waiting for its return");
}

void AgentWatch::lookForReturn() {
  if (!up_) {
    look();
  }
}

}  // namespace tavcli
