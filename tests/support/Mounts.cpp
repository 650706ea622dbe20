#include "support/Mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/TempDir.h"

namespace testsupport {

namespace {

std::string failure(const char* step) {
  return std::string(step) + ": " + std::strerror(errno);
}

bool makeAllPrivate() {
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool isTop() {
  struct stat here {};
  struct stat above {};
  return stat(".", &here) != 0 || stat("..", &above) != 0 ||
         (here.st_dev == above.st_dev && here.st_ino == above.st_ino);
}

/// Inside a chroot, the mount around the chroot has no name. From a current folder above the root, ".." leads
/// to this mount. Root and current folder are restored.
std::string makeAllPrivateFromAbove() {
  const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int current = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const TempDir below;
  std::string why;
  if (root < 0 || current < 0 || chdir("/") != 0 || chroot(below.path().c_str()) != 0) {
    why = failure("the way out of a chroot");
  } else {
    while (!isTop() && chdir("..") == 0) {
    }
    if (chroot(".") != 0 || !makeAllPrivate()) {
      why = failure("mounts that no other sees");
    }
  }
  if (fchdir(root) != 0 || chroot(".") != 0 || fchdir(current) != 0) {
    why = failure("the way back into a chroot");
  }
  close(root);
  close(current);
  return why;
}

}  // namespace

std::string enterOwnMounts() {
  if (unshare(CLONE_NEWNS) != 0) {
    return failure("a mount namespace");
  }
  return makeAllPrivate() ? "" : makeAllPrivateFromAbove();
}

std::string whyNoOwnMounts() {
  const TempDir folder;
  int ends[2];
  if (pipe(ends) != 0) {
    return failure("a pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    std::string why = enterOwnMounts();
    if (why.empty() && mount("none", folder.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
      why = failure("a mount");
    }
    _exit(write(ends[1], why.data(), why.size()) == static_cast<ssize_t>(why.size()) ? 0 : 1);
  }
  close(ends[1]);
  char text[256];
  const ssize_t size = read(ends[0], text, sizeof text);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
}

}  // namespace testsupport
