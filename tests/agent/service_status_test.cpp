// The output of --status, over a real bus in a private tree.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "service/BusLink.h"
#include "service/Options.h"
#include "service/Status.h"
#include "support/InstallTree.h"
#include "support/ScriptedAgent.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A process of another user that listens at a path, on the kernel's word, until it is ended with the object.
class OtherUsersListener {
 public:
  explicit OtherUsersListener(const std::string& path) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    pid_ = fork();
    if (pid_ == 0) {
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      const bool listens = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                           setuid(65534) == 0 && listen(fd, 8) == 0 && write(ready[1], "1", 1) == 1;
      while (listens) {
        pause();
      }
      _exit(1);
    }
    close(ready[1]);
    char word = 0;
    EXPECT_EQ(read(ready[0], &word, 1), 1) << "it does not listen";
    close(ready[0]);
  }
  ~OtherUsersListener() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  OtherUsersListener(const OtherUsersListener&) = delete;
  OtherUsersListener& operator=(const OtherUsersListener&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

class StatusOfAnAgent : public ::testing::Test {
 protected:
  std::string socketPath() const {
    return settings_.socketDir + "/" + lunet::formatGuid(lunet::parseGuid(lunet::kAgentGuid)) + ".sock";
  }
  /// Returns the exit code; the output is in out and err.
  int print() {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int code = printStatus(platform::InstallTree(tree_.path()));
    out = ::testing::internal::GetCapturedStdout();
    err = ::testing::internal::GetCapturedStderr();
    return code;
  }

  testsupport::InstallTree tree_;
  const BusSettings settings_ = readBusSettings(platform::InstallTree(tree_.path()), "test").value();
  testsupport::ScriptedAgent agent_{tree_.path()};
  std::string out, err;
};

TEST_F(StatusOfAnAgent, NamesTheProcessThatAnswers) {
  agent_.answer("getBusList", Json::arrayValue);
  EXPECT_EQ(print(), kExitOk) << err;
  EXPECT_THAT(out, HasSubstr("pid=" + std::to_string(getpid()) + "\n"));
}

TEST_F(StatusOfAnAgent, TellsWhatTheAgentScansWithInLinesOfItsOwn) {
  agent_.answer("getBusList", Json::arrayValue);
  EXPECT_EQ(print(), kExitOk) << err;
  EXPECT_THAT(out, ::testing::EndsWith("signatures=not known yet\n"));
  SignatureState state;
  state.rules = "the rules";
  state.limits = "the limits";
  state.detail = "5 signatures from a\nfolder";
  state.version = "5f";
  tree_.write("state/versions", versionLines(state));
  EXPECT_EQ(print(), kExitOk) << err;
  EXPECT_THAT(
      out, ::testing::EndsWith("rules=the rules\nlimits=the limits\nsignatures=5 signatures from a\\nfolder\n"
                               "signature_version=5f\nshortage=none\n"));
  state.shortage = "the system's signatures are not in use";
  tree_.write("state/versions", versionLines(state));
  EXPECT_EQ(print(), kExitOk) << err;
  EXPECT_THAT(out, ::testing::EndsWith("\nshortage=the system's signatures are not in use\n"));
}

// The answer came from the agent, and by then its address is another user's.
TEST_F(StatusOfAnAgent, NamesNoProcessWhereAnotherUserHasTakenTheAddress) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs a second user";
  }
  ASSERT_TRUE(std::filesystem::is_socket(socketPath()));
  const OtherUsersListener other(tree_.at("other.sock"));
  agent_.answerWith("getBusList", [&](const Json::Value&) {
    std::filesystem::rename(tree_.at("other.sock"), socketPath());
    return Json::Value(Json::arrayValue);
  });
  EXPECT_EQ(print(), kExitFailed);
  EXPECT_THAT(out, IsEmpty()) << other.pid();
  EXPECT_THAT(err, HasSubstr("cannot be told"));
}

}  // namespace
}  // namespace agent
