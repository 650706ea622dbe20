#include "bin/BusState.h"

#include <sys/eventfd.h>
#include <unistd.h>

std::atomic<std::uint32_t> g_lastBusState{tavcli::kBusStateNone};

namespace tavcli {

int finalStateDescriptor() {
  static const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return descriptor;
}

void announceFinalState() {
  const std::uint64_t one = 1;
  // Fails only when the counter is full; then the descriptor is readable already.
  (void)!write(finalStateDescriptor(), &one, sizeof one);
}

bool takeFinalState() {
  std::uint64_t count = 0;
  return read(finalStateDescriptor(), &count, sizeof count) == sizeof count;
}

}  // namespace tavcli
