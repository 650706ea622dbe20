#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/ConstConfig.h"
#include "support/TempDir.h"

namespace {

TEST(ConstConfig, TheLogFolderLiesUnderTheStateHomeAndEndsInASeparator) {
  const testsupport::TempDir dir;
  setenv("XDG_STATE_HOME", dir.path().c_str(), 1);
  EXPECT_EQ(ConstConfig::singleInstance()->getLogDir(), dir.path() + "/tavcli/");
  struct stat st {};
  ASSERT_EQ(stat(dir.at("tavcli").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(ConstConfig, WithoutAStateHomeItLiesUnderTheUsersHomeWhateverTheEnvironmentSays) {
  unsetenv("XDG_STATE_HOME");
  setenv("HOME", "/home/of/somebody/else", 1);
  const passwd* user = getpwuid(getuid());
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(ConstConfig::singleInstance()->getLogDir(), std::string(user->pw_dir) + "/.local/state/tavcli/");
}

TEST(ConstConfig, ARelativeStateHomeIsIgnored) {
  setenv("XDG_STATE_HOME", "relative/path", 1);
  const passwd* user = getpwuid(getuid());
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(ConstConfig::singleInstance()->getLogDir(), std::string(user->pw_dir) + "/.local/state/tavcli/");
}

}  // namespace
