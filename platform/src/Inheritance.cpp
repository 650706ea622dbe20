#include "platform/Inheritance.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace platform {

namespace {

constexpr unsigned kHighest = ~0U;

#ifdef TAV_SANITIZED
constexpr int kLastStream = STDOUT_FILENO;
#else
constexpr int kLastStream = STDERR_FILENO;
#endif

}  // namespace

void leaveStandardStreams(std::initializer_list<int> kept) {
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = 0; nowhere >= 0 && fd <= kLastStream; ++fd) {
    if (std::find(kept.begin(), kept.end(), fd) == kept.end()) {
      dup2(nowhere, fd);
    }
  }
  if (nowhere > STDERR_FILENO) {
    close(nowhere);
  }
}

void closeAllBut(std::initializer_list<int> kept) {
  unsigned first = STDERR_FILENO + 1;
  while (true) {
    unsigned next = kHighest;  // the lowest kept descriptor from `first` on
    for (const int fd : kept) {
      if (fd >= 0 && static_cast<unsigned>(fd) >= first) {
        next = std::min(next, static_cast<unsigned>(fd));
      }
    }
    if (next > first) {
      close_range(first, next == kHighest ? kHighest : next - 1, 0);
    }
    if (next == kHighest) {
      return;
    }
    first = next + 1;
  }
}

}  // namespace platform
