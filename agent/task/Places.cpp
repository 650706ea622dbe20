#include "task/Places.h"

#include <glob.h>
#include <sys/stat.h>

namespace agent {

namespace {

enum StageIndex { kSystem, kSoftware, kMemory, kStartup, kKeyPlaces, kStageCount };

constexpr const char* kStageNames[kStageCount] = {"system settings", "common software", "running programs",
                                                  "start-up items", "key places of the system"};

struct Row {
  StageIndex stage;
  const char* path;  // "~/…": below every home folder; with "*": each that is there
  SettingKind setting = SettingKind::kNone;
};

constexpr Row kRows[] = {
    {kSystem, "/etc/ld.so.preload", SettingKind::kLines},
    {kSystem, "/etc/ld.so.conf"},
    {kSystem, "/etc/ld.so.conf.d"},
    {kSystem, "/etc/hosts"},
    {kSystem, "/etc/nsswitch.conf"},
    {kSystem, "/etc/passwd", SettingKind::kLines},
    {kSystem, "/etc/group"},
    {kSystem, "/etc/login.defs"},
    {kSystem, "/etc/shells"},
    {kSystem, "/etc/pam.conf", SettingKind::kLines},
    {kSystem, "/etc/pam.d", SettingKind::kLines},
    {kSystem, "/etc/security"},
    {kSystem, "/etc/ssh"},
    {kSystem, "/etc/sudoers", SettingKind::kLines},
    {kSystem, "/etc/sudoers.d", SettingKind::kLines},
    {kSystem, "/etc/sudo.conf", SettingKind::kLines},
    {kSystem, "/etc/sysctl.d"},
    {kSystem, "/etc/modprobe.d"},
    {kSystem, "/etc/udev/rules.d"},
    {kSystem, "/etc/apt/apt.conf.d"},
    {kSoftware, "/usr/local/bin"},
    {kSoftware, "/usr/local/sbin"},
    {kSoftware, "/usr/local/libexec"},
    {kSoftware, "/usr/games"},
    {kSoftware, "/snap/bin"},
    {kSoftware, "~/bin"},
    {kSoftware, "~/.local/bin"},
    {kStartup, "/etc/init.d"},
    {kStartup, "/etc/rc.local"},
    {kStartup, "/etc/inittab", SettingKind::kLines},
    {kStartup, "/etc/systemd/system", SettingKind::kUnit},
    {kStartup, "/etc/systemd/user", SettingKind::kUnit},
    {kStartup, "/run/systemd/system", SettingKind::kUnit},
    {kStartup, "/run/systemd/user", SettingKind::kUnit},
    {kStartup, "/usr/local/lib/systemd", SettingKind::kUnit},
    {kStartup, "/lib/systemd/system", SettingKind::kUnit},
    {kStartup, "/lib/systemd/user", SettingKind::kUnit},
    {kStartup, "/usr/lib/systemd/system", SettingKind::kUnit},
    {kStartup, "/usr/lib/systemd/user", SettingKind::kUnit},
    {kStartup, "/lib/systemd/system-generators"},
    {kStartup, "/etc/systemd/system-generators"},
    {kStartup, "/etc/cron.d", SettingKind::kLines},
    {kStartup, "/etc/cron.hourly"},
    {kStartup, "/etc/cron.daily"},
    {kStartup, "/etc/cron.weekly"},
    {kStartup, "/etc/cron.monthly"},
    {kStartup, "/etc/crontab", SettingKind::kLines},
    {kStartup, "/etc/anacrontab", SettingKind::kLines},
    {kStartup, "/var/spool/cron", SettingKind::kUserTables},
    {kStartup, "/var/spool/at"},
    {kStartup, "/etc/profile"},
    {kStartup, "/etc/profile.d"},
    {kStartup, "/etc/bash.bashrc"},
    {kStartup, "/etc/environment"},
    {kStartup, "/etc/xdg/autostart", SettingKind::kUnit},
    {kStartup, "/etc/update-motd.d"},
    {kStartup, "/etc/network/if-up.d"},
    {kStartup, "/etc/NetworkManager/dispatcher.d"},
    {kStartup, "~/.config/autostart", SettingKind::kUnit},
    {kStartup, "~/.config/systemd/user", SettingKind::kUnit},
    {kStartup, "~/.local/share/systemd/user", SettingKind::kUnit},
    {kStartup, "~/.pam_environment"},
    {kStartup, "~/.bashrc"},
    {kStartup, "~/.bash_profile"},
    {kStartup, "~/.bash_login"},
    {kStartup, "~/.profile"},
    {kStartup, "~/.zshrc"},
    {kStartup, "~/.ssh"},
    {kKeyPlaces, "/bin"},
    {kKeyPlaces, "/sbin"},
    {kKeyPlaces, "/usr/bin"},
    {kKeyPlaces, "/usr/sbin"},
    {kKeyPlaces, "/lib/security"},
    {kKeyPlaces, "/lib/*/security"},
    {kKeyPlaces, "/lib64/security"},
    {kKeyPlaces, "/usr/lib/security"},
    {kKeyPlaces, "/usr/lib/*/security"},
    {kKeyPlaces, "/usr/lib64/security"},
    {kKeyPlaces, "/usr/local/lib/security"},
    {kKeyPlaces, "/boot"},
    {kKeyPlaces, "/tmp"},
    {kKeyPlaces, "/var/tmp"},
    {kKeyPlaces, "/dev/shm"},
};

void addPlaces(std::vector<Place>& places, const Row& row, const std::vector<HomeFolder>& homes) {
  if (row.path[0] == '~') {
    for (const HomeFolder& home : homes) {
      places.push_back({home.path + (row.path + 1), home, row.setting});
    }
    return;
  }
  glob_t found{};
  if (glob(row.path, 0, nullptr, &found) == 0) {
    for (std::size_t i = 0; i < found.gl_pathc; ++i) {
      struct stat status {};
      if (stat(found.gl_pathv[i], &status) == 0) {
        places.push_back({found.gl_pathv[i], std::nullopt, row.setting});
      }
    }
  }
  globfree(&found);
}

}  // namespace

std::vector<Stage> stagesOf(json::ScanMode mode, bool memoryCheck, const std::vector<HomeFolder>& homes) {
  std::vector<Stage> stages;
  if (mode == json::ScanMode::kCustom) {
    return stages;
  }
  for (int index = 0; index < kStageCount; ++index) {
    if (index == kMemory && !memoryCheck) {
      continue;
    }
    Stage stage;
    stage.begin = 2 * index;
    stage.end = 2 * index + 1;
    stage.what = kStageNames[index];
    stage.runningPrograms = index == kMemory;
    if (index == kKeyPlaces && mode == json::ScanMode::kFull) {
      stage.places = {Place{"/", std::nullopt, SettingKind::kNone}};  // the walk enters no folder twice
    } else {
      for (const Row& row : kRows) {
        if (row.stage == index) {
          addPlaces(stage.places, row, homes);
        }
      }
      stage.setuidFiles = index == kKeyPlaces;
    }
    stages.push_back(std::move(stage));
  }
  return stages;
}

}  // namespace agent
