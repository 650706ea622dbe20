#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <functional>
#include <string>
#include <thread>

namespace agent {

/// Runs `what` on a thread with mounts of its own, which the threads of `what` share. No other process sees
/// the mounts that `mounts` makes. False when this process may not do that, or when `mounts` returns false.
inline bool withOwnMounts(const std::function<bool()>& mounts, const std::function<void()>& what) {
  bool ran = false;
  std::thread([&] {
    ran = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
          mounts();
    if (ran) {
      what();
    }
  }).join();
  return ran;
}

/// The user database is that file.
inline std::function<bool()> userDatabase(const std::string& file) {
  return [file] { return mount(file.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0; };
}

}  // namespace agent
