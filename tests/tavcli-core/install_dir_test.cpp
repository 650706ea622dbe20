#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bin/ContainerConfig.h"
#include "bin/InstallDir.h"
#include "platform/Text.h"
#include "support/TempDir.h"

namespace {

// The directory is resolved once a process, so each test runs in a process of its own and makes its folders
// there.
class InstallDirectory : public testing::Test {
 protected:
  InstallDirectory() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

std::string resolvedIn(const std::string& directory) {
  if (chdir(directory.c_str()) != 0) {
    return "cannot enter " + directory;
  }
  return tavcli::installDirectory();
}

bool isTheFolderAboveTheCurrentOne() {
  const testsupport::TempDir dir;
  dir.write("bin/file", "");
  return resolvedIn(dir.at("bin")) == dir.path() + "/";
}

TEST_F(InstallDirectory, IsTheFolderAboveTheCurrentOneWithASeparator) {
  EXPECT_EXIT(_exit(isTheFolderAboveTheCurrentOne() ? 0 : 1), testing::ExitedWithCode(0), "");
}

bool isKept() {
  const testsupport::TempDir dir;
  dir.write("one/bin/file", "");
  dir.write("two/bin/file", "");
  const std::string first = resolvedIn(dir.at("one/bin"));
  return first == dir.at("one/") && resolvedIn(dir.at("two/bin")) == first;
}

TEST_F(InstallDirectory, IsResolvedOnceAndKept) {
  EXPECT_EXIT(_exit(isKept() ? 0 : 1), testing::ExitedWithCode(0), "");
}

bool isTheDefaultInAFolderThatIsGone() {
  {
    const testsupport::TempDir dir;
    if (chdir(dir.path().c_str()) != 0) {
      return false;
    }
  }
  fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const std::string directory = tavcli::installDirectory();
  fflush(stdout);
  return directory == "/opt/apps/Korvix/";
}

TEST_F(InstallDirectory, StaysTheDefaultWhenTheCurrentFolderCannotBeEntered) {
  EXPECT_EXIT(_exit(isTheDefaultInAFolderThatIsGone() ? 0 : 1), testing::ExitedWithCode(0),
              "^failed chdir to , No such file or directory$");
}

bool isTheDefaultInAFolderThatCannotBeEntered() {
  const testsupport::TempDir dir;
  const std::string closed = dir.at("closed");
  if (mkdir(closed.c_str(), 0700) != 0 || chdir(closed.c_str()) != 0 || chmod(closed.c_str(), 0) != 0) {
    return false;
  }
  constexpr uid_t kNobody = 65534;
  const bool isRoot = geteuid() == 0;
  const bool changed = !isRoot || seteuid(kNobody) == 0;
  fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const std::string directory = tavcli::installDirectory();
  fflush(stdout);
  return changed && (!isRoot || seteuid(0) == 0) && directory == "/opt/apps/Korvix/";
}

TEST_F(InstallDirectory, StaysTheDefaultWhenTheCurrentFolderIsClosedToTheUser) {
  EXPECT_EXIT(_exit(isTheDefaultInAFolderThatCannotBeEntered() ? 0 : 1), testing::ExitedWithCode(0),
              "^failed chdir to /.*/closed, Permission denied$");
}

TEST(ContainerConfiguration, IsFilledAsItsTableSays) {
  const tavcli::ContainerConfig config = tavcli::containerConfigFor("/srv/tree/");
  EXPECT_EQ(config.name, "tavcli");
  EXPECT_EQ(config.guid, "A4F72BA6-6DE6-44D4-B955-5A880273427E");
  EXPECT_EQ(config.version, "1.0.0");
  EXPECT_EQ(config.installDir, "/srv/tree/");
  EXPECT_EQ(config.debugConfigFile, "/srv/tree/etc/debug/cli_debug.conf");
  EXPECT_EQ(config.logDir, "/srv/tree/log/");
  EXPECT_EQ(config.busLibraryPath, "/srv/tree/lib/modules/libLunetClientMgr.so");
  EXPECT_EQ(config.busConfigFile, "/srv/tree/etc/communication/cli_lunet.conf");
}

}  // namespace
