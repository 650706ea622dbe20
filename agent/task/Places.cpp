#include "task/Places.h"

#include <pwd.h>
#include <sys/stat.h>

#include <mutex>
#include <set>

namespace agent {

namespace {

enum StageIndex { kSystem, kSoftware, kMemory, kStartup, kKeyPlaces, kStageCount };

constexpr const char* kStageNames[kStageCount] = {"system settings", "common software", "running programs",
                                                  "start-up items", "key places of the system"};

struct Place {
  StageIndex stage;
  const char* path;  // "~/…": below every home folder
};

constexpr Place kPlaces[] = {
    {kSystem, "/etc/ld.so.preload"},
    {kSystem, "/etc/ld.so.conf.d"},
    {kSystem, "/etc/hosts"},
    {kSystem, "/etc/pam.d"},
    {kSystem, "/etc/security"},
    {kSystem, "/etc/ssh"},
    {kSystem, "/etc/sudoers.d"},
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
    {kStartup, "/etc/systemd/system"},
    {kStartup, "/etc/systemd/user"},
    {kStartup, "/lib/systemd/system"},
    {kStartup, "/lib/systemd/system-generators"},
    {kStartup, "/etc/cron.d"},
    {kStartup, "/etc/cron.hourly"},
    {kStartup, "/etc/cron.daily"},
    {kStartup, "/etc/cron.weekly"},
    {kStartup, "/etc/cron.monthly"},
    {kStartup, "/etc/crontab"},
    {kStartup, "/var/spool/cron"},
    {kStartup, "/etc/profile"},
    {kStartup, "/etc/profile.d"},
    {kStartup, "/etc/bash.bashrc"},
    {kStartup, "/etc/environment"},
    {kStartup, "/etc/xdg/autostart"},
    {kStartup, "/etc/update-motd.d"},
    {kStartup, "/etc/network/if-up.d"},
    {kStartup, "/etc/NetworkManager/dispatcher.d"},
    {kStartup, "~/.config/autostart"},
    {kStartup, "~/.config/systemd/user"},
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
    {kKeyPlaces, "/boot"},
    {kKeyPlaces, "/tmp"},
    {kKeyPlaces, "/var/tmp"},
    {kKeyPlaces, "/dev/shm"},
};

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

void addPlace(std::vector<std::string>& paths, const std::string& path) {
  if (exists(path)) {
    paths.push_back(path);
  }
}

}  // namespace

std::vector<Stage> stagesOf(json::ScanMode mode, bool memoryCheck, const std::vector<std::string>& homes) {
  std::vector<Stage> stages;
  if (mode == json::ScanMode::kCustom) {
    return stages;
  }
  for (int index = 0; index < kStageCount; ++index) {
    if (index == kMemory && !memoryCheck) {
      continue;
    }
    Stage stage{2 * index, 2 * index + 1, kStageNames[index], index == kMemory, {}};
    for (const Place& place : kPlaces) {
      const std::string path = place.path;
      if (place.stage != index) {
        continue;
      }
      if (path.front() != '~') {
        addPlace(stage.paths, path);
        continue;
      }
      for (const std::string& home : homes) {
        addPlace(stage.paths, home + path.substr(1));
      }
    }
    if (index == kKeyPlaces && mode == json::ScanMode::kFull) {
      stage.paths = {"/"};  // the walk enters no folder twice
    }
    stages.push_back(std::move(stage));
  }
  return stages;
}

std::vector<std::string> homeFolders() {
  // The reading position in the user database belongs to the whole process.
  static std::mutex reading;
  const std::lock_guard guard(reading);
  std::set<std::string> homes;
  setpwent();
  while (const passwd* entry = getpwent()) {
    const std::string home = entry->pw_dir;
    const bool person = entry->pw_uid == 0 || entry->pw_uid >= 1000;
    if (person && home.size() > 1 && home.front() == '/' && exists(home)) {
      homes.insert(home);
    }
  }
  endpwent();
  return {homes.begin(), homes.end()};
}

}  // namespace agent
