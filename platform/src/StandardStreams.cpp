#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

void openClosedStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) {
      // The lower streams are open, so open() returns this number. No O_CLOEXEC: started programs need the
      // streams as well.
      static_cast<void>(open("/dev/null", O_RDWR));
    }
  }
}

}  // namespace platform
