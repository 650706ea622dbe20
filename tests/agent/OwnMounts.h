#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <functional>
#include <string>
#include <thread>

namespace agent {

/// Runs it on a thread that has mounts of its own, as have the threads that it starts: what `mounts` puts
/// there is seen by nobody else. False when this process may not do that, or `mounts` says no.
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
