#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

void openClosedStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
      // Those below are open, so this is the lowest free number. Not closed on exec: the programs that this
      // one starts need the three as well.
      static_cast<void>(open("/dev/null", O_RDWR));
    }
  }
}

}  // namespace platform
