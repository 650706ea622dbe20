// Fast scans of a system of the test's own: /etc and /var/spool are folders of the test, and all else counts
// as a network file system.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "OwnMounts.h"
#include "ScanTaskTest.h"
#include "support/Samples.h"

namespace agent {
namespace {

using ::testing::UnorderedElementsAreArray;

constexpr uid_t kUser = 60123;
constexpr gid_t kGroup = 60124;

class FastScan : public ScanTaskTest {
 protected:
  FastScan() {
    for (const char* folder : {"etc", "spool", "home", "opt"}) {
      EXPECT_TRUE(std::filesystem::create_directory(dir.at(folder)));
    }
    EXPECT_EQ(0, chown(dir.at("home").c_str(), kUser, kGroup));
    setting("etc/passwd", "root:x:0:0::/nonexistent:/bin/sh\nperson:x:60123:60124::" + dir.at("home") + ":" +
                              infected("shell") + "\n");
    fileSystem = [path = dir.path()](int fd) {
      const std::string at = pathOf(fd);
      const bool own = isWithin(at, path) || isWithin(at, "/etc") || isWithin(at, "/var/spool");
      return own ? FileSystem{} : FileSystem{FileSystemKind::kNetwork, "nfs"};
    };
  }
  /// A detection in opt/, which is no place of a fast scan.
  std::string infected(const std::string& name) { return dir.write("opt/" + name, testsupport::eicar()); }
  void setting(const std::string& name, const std::string& text) {
    dir.write(name, text);
    for (std::filesystem::path at = name; !at.empty(); at = at.parent_path()) {
      if (at.string().starts_with("home")) {
        EXPECT_EQ(0, lchown(dir.at(at.string()).c_str(), kUser, kGroup));
      }
    }
  }
  /// False when the mounts cannot be made.
  bool scanned() {
    const auto bound = [](const std::string& from, const char* to) {
      return mount(from.c_str(), to, nullptr, MS_BIND, nullptr) == 0;
    };
    return withOwnMounts([&] { return bound(dir.at("etc"), "/etc") && bound(dir.at("spool"), "/var/spool"); },
                         [&] {
                           ScanPlan plan = programsOf(json::ScanMode::kFast);
                           plan.memoryCheck = false;
                           scan(plan);
                         });
  }
  ScanPlan programsOf(json::ScanMode mode) {
    const auto own = fileSystem;
    const ScanPlan plan = ScanTaskTest::programsOf(mode);
    fileSystem = own;
    return plan;
  }
};

TEST_F(FastScan, WhatSettingsOfTheSystemNameIsScanned) {
  setting("etc/ld.so.preload", infected("preload.so"));
  setting("etc/pam.d/su", "session optional pam_exec.so quiet " + infected("pam"));
  setting("etc/sudoers", "person ALL=(ALL) NOPASSWD:" + infected("sudo"));
  setting("etc/systemd/system/x.service", "[Service]\nExecStart=/bin/sh -c 'exec " + infected("unit") + "'");
  setting("etc/systemd/system/y.service.d/z.conf", "[Service]\nExecStartPre=-" + infected("drop-in"));
  setting("etc/cron.d/job", "PATH=" + dir.at("opt/bin") + "\n* * * * * root job >/dev/null");
  setting("etc/crontab", "@daily root " + dir.at("opt/link"));
  ASSERT_EQ(0, symlink(infected("target").c_str(), dir.at("opt/link").c_str()));
  setting("spool/cron/crontabs/person", "@reboot ~/job");
  setting("home/job", testsupport::eicar());
  setting("home/.config/autostart/a.desktop", "[Desktop Entry]\nExec=\"" + infected("a b") + "\" %u");
  setting("home/.config/systemd/user/u.service", "[Service]\nExecStart=%h/own");
  setting("home/own", testsupport::eicar());
  infected("bin/job");
  infected("not named");
  if (!scanned()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  std::vector<std::string> expected{dir.at("home/job"), dir.at("home/own")};
  for (const char* name :
       {"shell", "preload.so", "pam", "sudo", "unit", "drop-in", "bin/job", "link", "a b"}) {
    expected.push_back(dir.at(std::string("opt/") + name));
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAreArray(expected));
}

TEST_F(FastScan, BelowAHomeFolderRootFollowsLinksOnlyAsItsUserCould) {
  const std::string secret = infected("secret");
  ASSERT_EQ(0, chmod(secret.c_str(), 0600));
  setting("home/dotfiles/profile", testsupport::eicar());
  const std::pair<const char*, std::string> links[] = {{".profile", "dotfiles/profile"},
                                                       {".bashrc", "../opt/secret"},
                                                       {".zshrc", dir.at("opt/shell")},
                                                       {"bin", "../opt"},
                                                       {"named", "../opt/secret"}};
  for (const auto& [name, target] : links) {
    ASSERT_EQ(0, symlink(target.c_str(), dir.at(std::string("home/") + name).c_str()));
  }
  setting("home/.config/autostart/a.desktop",
          "[Desktop Entry]\nExec=" + secret + " " + dir.at("home/named") + "\n");
  setting("etc/crontab", "@daily root " + dir.at("home/named"));
  if (!scanned()) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_THAT(owner->risks(), UnorderedElementsAreArray({dir.at("opt/shell"), dir.at("home/.profile")}));
}

}  // namespace
}  // namespace agent
