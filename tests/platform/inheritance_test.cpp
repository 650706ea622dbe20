#include "platform/Inheritance.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>

namespace {

/// Makes the call in a child. The exit status of the child is 0 when exactly these descriptors are open.
int childHas(const std::set<int>& wanted, const std::function<void()>& call) {
  const pid_t child = fork();
  if (child == 0) {
    call();
    bool same = true;
    for (int fd = 0; fd < 64; ++fd) {
      same = same && (fcntl(fd, F_GETFD) >= 0) == wanted.contains(fd);
    }
    _exit(same ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void openSome() {
  const int nowhere = open("/dev/null", O_RDONLY);
  for (int fd = 0; fd < 40; ++fd) {
    dup2(nowhere, fd);
  }
}

TEST(ClosingDescriptors, LeavesTheThreeStreamsAndWhatIsKept) {
  EXPECT_EQ(0, childHas({0, 1, 2, 3, 7, 20}, [] {
              openSome();
              platform::closeAllBut({20, 3, 7});
            }));
}

TEST(ClosingDescriptors, KeepsNeighboursAndTakesAStreamForKeptAnyhow) {
  EXPECT_EQ(0, childHas({0, 1, 2, 8, 9}, [] {
              openSome();
              platform::closeAllBut({9, 8, 1, -1});
            }));
}

TEST(ClosingDescriptors, WithNothingToKeepClosesAll) {
  EXPECT_EQ(0, childHas({0, 1, 2}, [] {
              openSome();
              platform::closeAllBut({});
            }));
}

TEST(StandardStreams, LeadNowhereAllThree) {
  const pid_t child = fork();
  if (child == 0) {
    const auto target = [](int fd) {
      return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    };
    platform::leaveStandardStreams();
#ifdef TAV_SANITIZED
    const bool error = true;  // the sanitizer's report goes there
#else
    const bool error = target(STDERR_FILENO) == "/dev/null";
#endif
    _exit(error && target(STDIN_FILENO) == "/dev/null" && target(STDOUT_FILENO) == "/dev/null" ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
}

TEST(StandardStreams, NothingElseIsOpenFromThereOn) {
  EXPECT_EQ(0, childHas({0, 1, 2}, [] {
              platform::closeAllBut({});
              platform::leaveStandardStreams();
            }));
}

TEST(StandardStreams, AreOpenAllThreeWhenTheLastOfThemWasClosed) {
  EXPECT_EQ(0, childHas({0, 1, 2}, [] {
              platform::closeAllBut({});
              close(STDERR_FILENO);
              platform::leaveStandardStreams();
            }));
}

TEST(StandardStreams, LeadNowhereUnlessTheyAreKept) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    platform::leaveStandardStreams({STDOUT_FILENO});
    const bool led =
        std::filesystem::read_symlink("/proc/self/fd/0") == "/dev/null" && write(STDOUT_FILENO, "x", 1) == 1;
    _exit(led ? 0 : 1);
  }
  close(ends[1]);
  char byte = 0;
  EXPECT_EQ(1, read(ends[0], &byte, 1));
  EXPECT_EQ('x', byte);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
  close(ends[0]);
}

}  // namespace
