#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/ConstConfig.h"
#include "support/TempDir.h"

namespace {

/// The folder in a process with that environment. The configuration is made once in a process, so each
/// question forks. stateHome: null for an unset variable.
std::string logDirWith(const char* stateHome) {
  int ends[2];
  if (pipe(ends) != 0) {
    return "no pipe";
  }
  const pid_t child = fork();
  if (child == 0) {
    setenv("HOME", "/home/of/somebody/else", 1);
    stateHome == nullptr ? unsetenv("XDG_STATE_HOME") : setenv("XDG_STATE_HOME", stateHome, 1);
    const std::string& text = ConstConfig::singleInstance()->getLogDir();
    _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  char text[4096];
  const ssize_t count = read(ends[0], text, sizeof text);
  close(ends[0]);
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0 && count > 0 ? std::string(text, static_cast<std::size_t>(count)) : "no answer";
}
std::string logDirWith(const std::string& stateHome) {
  return logDirWith(stateHome.c_str());
}

/// The folder without the environment.
std::string inTheUsersHome() {
  const passwd* user = getpwuid(getuid());
  return user == nullptr ? "no user" : std::string(user->pw_dir) + "/.local/state/tavcli/";
}

TEST(ConstConfig, TheLogFolderLiesUnderTheStateHomeAndEndsInASeparator) {
  const testsupport::TempDir dir;
  EXPECT_EQ(logDirWith(dir.path()), dir.path() + "/tavcli/");
  struct stat st {};
  ASSERT_EQ(stat(dir.at("tavcli").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(ConstConfig, AStateHomeThatDoesNotStandYetIsMade) {
  const testsupport::TempDir dir;
  EXPECT_EQ(logDirWith(dir.at("not/yet")), dir.at("not/yet/tavcli/"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.at("not/yet/tavcli")));
}

TEST(ConstConfig, WithoutAStateHomeItLiesUnderTheUsersHomeWhateverTheEnvironmentSays) {
  EXPECT_EQ(logDirWith(nullptr), inTheUsersHome());
}

TEST(ConstConfig, ARelativeStateHomeIsIgnored) {
  EXPECT_EQ(logDirWith("relative/path"), inTheUsersHome());
  const testsupport::TempDir dir;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  std::filesystem::create_directory("state");
  EXPECT_EQ(logDirWith("state"), inTheUsersHome()) << "though it stands";
  std::filesystem::current_path(before);
}

TEST(ConstConfig, WhoActsForAnotherUserForAMomentKeepsItsOwnFolder) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs a second user";
  }
  ASSERT_EQ(seteuid(54321), 0);
  const std::string folder = logDirWith(nullptr);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(folder, inTheUsersHome());
}

TEST(ConstConfig, AStateHomeThatOthersMayWriteIsIgnoredAndNothingIsMadeThere) {
  const testsupport::TempDir dir;
  for (const mode_t mode : {0777U, 0775U, 01777U}) {
    ASSERT_EQ(chmod(dir.path().c_str(), mode), 0);
    EXPECT_EQ(logDirWith(dir.path()), inTheUsersHome());
    EXPECT_EQ(logDirWith(dir.at("below")), inTheUsersHome());
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
}

TEST(ConstConfig, AStateHomeThroughALinkThatLeadsNowhereIsIgnored) {
  const testsupport::TempDir dir;
  std::filesystem::create_symlink(dir.at("nowhere"), dir.at("link"));
  EXPECT_EQ(logDirWith(dir.at("link")), inTheUsersHome());
}

TEST(ConstConfig, AnotherUsersStateHomeIsIgnoredAndNothingIsMadeThere) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs a second user";
  }
  const testsupport::TempDir dir;
  ASSERT_TRUE(std::filesystem::create_directory(dir.at("state")));
  ASSERT_EQ(chown(dir.at("state").c_str(), 54321, 54321), 0);
  EXPECT_EQ(logDirWith(dir.at("state")), inTheUsersHome());
  EXPECT_EQ(logDirWith(dir.at("state/below")), inTheUsersHome());
  EXPECT_TRUE(std::filesystem::is_empty(dir.at("state")));
}

}  // namespace
