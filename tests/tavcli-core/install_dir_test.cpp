#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bin/ContainerConfig.h"
#include "bin/InstallDir.h"
#include "platform/Text.h"
#include "support/TempDir.h"

namespace {

// The directory is resolved once a process: each of these runs in a process of its own.

std::string resolvedIn(const std::string& directory) {
  if (chdir(directory.c_str()) != 0) {
    return "cannot enter " + directory;
  }
  return tavcli::installDirectory();
}

TEST(InstallDirectory, IsTheFolderAboveTheCurrentOneWithASeparator) {
  testsupport::TempDir dir;
  dir.write("bin/file", "");
  EXPECT_EXIT(_exit(resolvedIn(dir.at("bin")) == dir.path() + "/" ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(InstallDirectory, IsResolvedOnceAndKept) {
  testsupport::TempDir dir;
  dir.write("one/bin/file", "");
  dir.write("two/bin/file", "");
  EXPECT_EXIT(
      {
        const std::string first = resolvedIn(dir.at("one/bin"));
        _exit(first == dir.at("one/") && resolvedIn(dir.at("two/bin")) == first ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(InstallDirectory, StaysTheDefaultWhenTheCurrentFolderCannotBeEntered) {
  testsupport::TempDir dir;
  dir.write("gone/bin/file", "");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        if (chdir(dir.at("gone/bin").c_str()) != 0 || unlink("file") != 0 ||
            rmdir(dir.at("gone/bin").c_str()) != 0) {
          _exit(2);
        }
        const std::string directory = tavcli::installDirectory();
        fflush(stdout);
        _exit(directory == "/opt/apps/Korvix/" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^failed chdir to , No such file or directory$");
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
