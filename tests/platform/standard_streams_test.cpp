#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "platform/StandardStreams.h"

namespace {

std::string placeOf(int fd) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error).string();
}

/// Makes the call in a child with the given streams closed, and checks the streams there.
class ClosedStreams : public testing::TestWithParam<std::set<int>> {
 protected:
  template <class Look>
  static bool inChild(Look look) {
    const pid_t child = fork();
    if (child == 0) {
      for (const int fd : GetParam()) {
        close(fd);
      }
      platform::openClosedStandardStreams();
      _exit(look() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
};

TEST_P(ClosedStreams, LeadNowhereAndTheOthersStay) {
  const std::string before[] = {placeOf(0), placeOf(1), placeOf(2)};
  EXPECT_TRUE(inChild([&] {
    for (int fd = 0; fd <= 2; ++fd) {
      if (placeOf(fd) != (GetParam().contains(fd) ? "/dev/null" : before[fd])) {
        return false;
      }
    }
    return true;
  }));
}

TEST_P(ClosedStreams, StayOpenForTheProgramsThatAreStartedLater) {
  EXPECT_TRUE(inChild([] {
    for (int fd = 0; fd <= 2; ++fd) {
      if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) {
        return false;
      }
    }
    return true;
  }));
}

TEST_P(ClosedStreams, CostNoFurtherDescriptor) {
  const int free = dup(STDERR_FILENO);
  close(free);
  EXPECT_TRUE(inChild([free] { return dup(STDERR_FILENO) == free; }));
}

INSTANTIATE_TEST_SUITE_P(StandardStreams, ClosedStreams,
                         testing::Values(std::set<int>{}, std::set<int>{0}, std::set<int>{1},
                                         std::set<int>{2}, std::set<int>{0, 2}, std::set<int>{1, 2},
                                         std::set<int>{0, 1, 2}),
                         [](const auto& row) {
                           std::string name = "Of";
                           for (const int fd : row.param) {
                             name += std::to_string(fd);
                           }
                           return row.param.empty() ? "OfNone" : name;
                         });

}  // namespace
