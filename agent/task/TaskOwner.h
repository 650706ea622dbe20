#pragma once

#include "lunet/Lunet.h"

namespace agent {

/// Who hears of a task: the very process that started it. All consoles share one address, so the address
/// alone says nothing.
struct TaskOwner {
  lunet::Guid guid{};
  lunet::PeerIdentity process;
};

}  // namespace agent
