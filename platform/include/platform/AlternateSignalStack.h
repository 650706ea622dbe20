#pragma once

#include <signal.h>

#include <cstddef>
#include <memory>
#include <new>

namespace platform {

/// A stack of its own for the signal handlers (SA_ONSTACK) of the thread that makes the object: a handler
/// also runs after the thread's own stack has overflowed. A stack that the thread has already stays in use.
/// Destroy the object on the same thread.
class AlternateSignalStack {
 public:
  AlternateSignalStack() {
    stack_t present{};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) {
      return;
    }
    memory_.reset(new (std::nothrow) char[kBytes]);
    const stack_t mine{.ss_sp = memory_.get(), .ss_flags = 0, .ss_size = kBytes};
    if (memory_ && sigaltstack(&mine, nullptr) != 0) {
      memory_.reset();
    }
  }
  ~AlternateSignalStack() {
    if (memory_) {
      const stack_t none{.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
      sigaltstack(&none, nullptr);
    }
  }
  AlternateSignalStack(const AlternateSignalStack&) = delete;
  AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;

 private:
  static constexpr std::size_t kBytes = 64 << 10;
  std::unique_ptr<char[]> memory_;  // NOLINT(modernize-avoid-c-arrays)
};

}  // namespace platform
