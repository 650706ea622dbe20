#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// Whose system calls a filter allows.
enum class CallsOf : std::uint8_t {
  kTemplate,  ///< loads signatures and forks workers
  kWorker     ///< scans: reads, maps memory, writes temporary files
};

/// From now on any other call ends this process, which first sends a CallBreach over descriptor kChannelFd.
/// A later filter can only allow less. 0 or an errno value.
int filterCalls(CallsOf whose);

/// The channel to the agent has this number in the template and in each worker.
inline constexpr int kChannelFd = 3;

struct CallBreach;
/// "it called ptrace, which the filter of its system calls refuses".
std::string breachText(const CallBreach& breach);

}  // namespace agent
