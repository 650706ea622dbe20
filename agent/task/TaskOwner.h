#pragma once

#include "lunet/Lunet.h"

namespace agent {

/// The receiver of a task's notifications: the process that started the task. All consoles share one
/// address, so the address alone does not identify the process.
struct TaskOwner {
  lunet::Guid guid{};
  lunet::PeerIdentity process;
};

}  // namespace agent
