// Fast scans of a system of the test's own: folders of the test lie over /etc, /mnt (a home folder), /opt and
// /var/spool. All else counts as a network file system.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "OwnMounts.h"
#include "ScanTaskTest.h"
#include "support/Samples.h"
#include "task/Walker.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

constexpr uid_t kUser = 60123;
constexpr gid_t kGroup = 60124;

class FastScan : public ScanTaskTest {
 protected:
  FastScan() {
    setting("/mnt/.keep", "");
    setting("/var/spool/cron/crontabs/unknown", "@reboot /opt/of-nobody");
    setting("/etc/passwd",
            "root:x:0:0::/nonexistent:/bin/sh\nperson:x:60123:60124::/mnt:" + infected("shell") + "\n");
    fileSystem = [](int fd) {
      const std::string at = pathOf(fd);
      const auto within = [&at](const char* folder) { return isWithin(at, folder); };
      return std::any_of(std::begin(kFolders), std::end(kFolders), within)
                 ? FileSystem{}
                 : FileSystem{FileSystemKind::kNetwork, "nfs"};
    };
  }
  /// A detection in /opt, which is no place of a fast scan.
  std::string infected(const std::string& name) {
    dir.write("system/opt/" + name, testsupport::eicar());
    return "/opt/" + name;
  }
  void setting(const std::string& path, const std::string& text) { dir.write("system" + path, text); }
  static void link(const std::string& target, const std::string& at) {
    EXPECT_EQ(0, symlink(target.c_str(), at.c_str()));
  }
  /// False when the mounts cannot be made.
  bool scanned() {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.at("system/mnt"))) {
      EXPECT_EQ(0, lchown(entry.path().c_str(), kUser, kGroup));
    }
    EXPECT_EQ(0, lchown(dir.at("system/mnt").c_str(), kUser, kGroup));
    const auto bound = [this](const char* folder) {
      return mount((dir.at("system") + folder).c_str(), folder, nullptr, MS_BIND, nullptr) == 0;
    };
    return withOwnMounts([&] { return std::all_of(std::begin(kFolders), std::end(kFolders), bound); },
                         [&] { scan(fastScan()); });
  }
  /// As scanned(), with the system's own folder as the root and every file system as what it is.
  bool scannedAsRoot() {
    EXPECT_TRUE(std::filesystem::create_directory(dir.at("system/proc")));
    fileSystem = fileSystemOf;
    const std::string root = dir.at("system");
    return withOwnMounts(
        [&] {
          return mount("/proc", (root + "/proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
                 chroot(root.c_str()) == 0 && chdir("/") == 0;  // of this thread and those that it starts
        },
        [&] { scan(fastScan()); });
  }
  static ScanPlan fastScan() {
    ScanPlan plan;
    plan.mode = json::ScanMode::kFast;
    plan.scanType = json::toScanType(plan.mode, false);
    plan.parallelism = 1;
    plan.networkFileSystems = false;
    return plan;
  }
  static constexpr const char* kFolders[] = {"/etc", "/mnt", "/opt", "/var/spool"};
};

TEST_F(FastScan, WhatSettingsOfTheSystemNameIsScanned) {
  setting("/etc/ld.so.preload", infected("preload.so"));
  setting("/etc/pam.d/su", "session optional pam_exec.so quiet " + infected("pam"));
  setting("/etc/sudoers", "person ALL=(ALL) NOPASSWD:" + infected("sudo"));
  setting("/etc/systemd/system/x.service", "[Service]\nExecStart=/bin/sh -c 'exec " + infected("unit") + "'");
  setting("/etc/systemd/system/y.service.d/z.conf", "[Service]\nExecStartPre=-" + infected("drop-in"));
  setting("/etc/cron.d/job", "PATH=/opt/bin\n* * * * * root job >/dev/null");
  infected("bin/job");
  setting("/etc/crontab", "@daily root /opt/link");
  link(infected("target"), dir.at("system/opt/link"));
  setting("/var/spool/cron/crontabs/person", "@reboot ~/job");
  setting("/mnt/job", testsupport::eicar());
  setting("/mnt/.config/autostart/a.desktop", "[Desktop Entry]\nExec=\"" + infected("a b") + "\" %u");
  setting("/mnt/.config/systemd/user/u.service", "[Service]\nExecStart=%h/own");
  setting("/mnt/own", testsupport::eicar());
  infected("not-named");
  infected("of-nobody");
  if (!scanned()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAre("/opt/shell", "/opt/preload.so", "/opt/pam", "/opt/sudo",
                                                   "/opt/unit", "/opt/drop-in", "/opt/bin/job", "/opt/link",
                                                   "/opt/a b", "/mnt/job", "/mnt/own"));
}

TEST_F(FastScan, BelowAHomeFolderRootFollowsLinksOnlyAsItsUserCould) {
  infected("secret");
  ASSERT_EQ(0, chmod(dir.at("system/opt/secret").c_str(), 0600));
  setting("/mnt/dotfiles/profile", testsupport::eicar());
  const std::string home = dir.at("system/mnt");
  link("dotfiles/profile", home + "/.profile");
  link("../opt/secret", home + "/.bashrc");
  link("/opt/shell", home + "/.zshrc");
  link("../opt", home + "/bin");
  link("../opt/secret", home + "/named");
  setting("/mnt/.config/autostart/a.desktop", "[Desktop Entry]\nExec=/opt/secret /mnt/named\n");
  setting("/etc/crontab", "@daily root /mnt/named");
  if (!scanned()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAre("/opt/shell", "/mnt/.profile"));
  EXPECT_EQ(1, owner->counted("failed_item_count"));  // /opt/secret, which the user's entry names
}

TEST_F(FastScan, AUsersSettingsTakeNoProgramFromThoseOfTheSystem) {
  infected("secret");
  ASSERT_EQ(0, chmod(dir.at("system/opt/secret").c_str(), 0600));
  setting("/var/spool/cron/crontabs/person", "@reboot /opt/secret");  // is read first
  setting("/etc/xdg/autostart/a.desktop", "[Desktop Entry]\nExec=/opt/secret");
  if (!scanned()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAre("/opt/shell", "/opt/secret"));
}

TEST_F(FastScan, SetuidFilesAreFoundWhereverTheyLie) {
  infected("deep/below/uid");
  infected("deep/below/plain");
  ASSERT_EQ(0, chmod(dir.at("system/opt/deep/below/uid").c_str(), 04755));
  if (!scannedAsRoot()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAre("/opt/shell", "/opt/deep/below/uid"));
  EXPECT_EQ(0, owner->counted("failed_item_count")) << owner->detail();
}

TEST_F(FastScan, WhereAUserCannotLookForSetuidFilesIsNoError) {
  infected("closed/uid");
  infected("open/uid");
  for (const char* folder : {"closed", "open"}) {
    const std::string path = dir.at(std::string("system/opt/") + folder);
    ASSERT_EQ(0, chmod((path + "/uid").c_str(), 04755));
    ASSERT_EQ(0, chmod(path.c_str(), folder == std::string("open") ? 0755 : 0700));
  }
  caller = CallerId{kUser, kGroup, {}, getpid()};
  if (!scannedAsRoot()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAre("/opt/shell", "/opt/open/uid"));
  EXPECT_EQ(0, owner->counted("failed_item_count")) << owner->detail();
  EXPECT_THAT(owner->detail(), HasSubstr("1 not searched for setuid files: Permission denied"));
}

}  // namespace
}  // namespace agent
