#include "task/RunningPrograms.h"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>

#include "platform/Descriptor.h"
#include "platform/Posix.h"
#include "platform/ProcessStat.h"
#include "worker/Pidfd.h"

namespace agent {

namespace {

constexpr std::chrono::seconds kTableAge{1};
constexpr int kEndWaitMs = 3000;

std::string procPath(pid_t pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

/// Where the link leads; the link itself when that path is too long for the kernel to say. Empty: neither.
std::string programPath(const std::string& link) {
  char text[4096];
  const ssize_t length = readlink(link.c_str(), text, sizeof text);
  if (length < 0) {
    return errno == ENAMETOOLONG ? link : std::string();
  }
  return {text, static_cast<std::size_t>(length)};
}

std::optional<RunningProgram> readProgram(pid_t pid) {
  const std::string link = procPath(pid, "exe");
  struct stat program {};
  struct stat process {};
  RunningProgram result;
  result.path = programPath(link);
  if (result.path.empty() || stat(link.c_str(), &program) != 0 ||
      stat(procPath(pid, "").c_str(), &process) != 0) {
    return std::nullopt;  // a kernel thread, one that ended, or one we may not look at
  }
  result.pid = pid;
  result.uid = process.st_uid;
  if (const auto state = platform::processStat(pid)) {
    result.startTicks = state->startTicks;
    result.name = state->name;
  }
  result.device = program.st_dev;
  result.inode = program.st_ino;
  struct stat atPath {};
  result.onDisk = stat(result.path.c_str(), &atPath) == 0 && atPath.st_ino == program.st_ino &&
                  atPath.st_dev == program.st_dev;
  return result;
}

bool isAncestorOfUs(pid_t pid) {
  for (pid_t up = getppid(); up > 1;) {
    if (up == pid) {
      return true;
    }
    const auto state = platform::processStat(up);
    if (!state) {
      return false;
    }
    up = state->parent;
  }
  return false;
}

platform::Expected<void> checkMayEnd(const RunningProgram& program) {
  struct stat own {};
  std::string reason;
  if (program.pid <= 1) {
    reason = "is the first process of the system";
  } else if (program.pid == getpid() || isAncestorOfUs(program.pid)) {
    reason = "is the agent or started it";
  } else if (stat("/proc/self/exe", &own) == 0 && own.st_dev == program.device &&
             own.st_ino == program.inode) {
    reason = "runs the agent's own program";
  } else {
    return {};
  }
  return platform::failure("process " + std::to_string(program.pid) + " " + reason);
}

}  // namespace

platform::Expected<std::vector<RunningProgram>> RunningPrograms::all() {
  std::vector<RunningProgram> result;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc"), closedir);
  if (!directory) {
    return platform::failure(platform::errnoText(errno));
  }
  while (const dirent* entry = readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (!std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      continue;
    }
    if (std::optional<RunningProgram> program = readProgram(static_cast<pid_t>(std::stol(name)))) {
      result.push_back(std::move(*program));
    }
  }
  return result;
}

std::vector<RunningProgram> RunningPrograms::running(const FileIdentity& file) {
  const auto now = std::chrono::steady_clock::now();
  if (byFile_.empty() || now - readAt_ > kTableAge) {
    byFile_.clear();
    for (RunningProgram& program : all().value_or(std::vector<RunningProgram>())) {
      byFile_.emplace(std::pair(program.device, program.inode), std::move(program));
    }
    readAt_ = now;
  }
  std::vector<RunningProgram> result;
  const auto [from, to] = byFile_.equal_range({file.device, file.inode});
  for (auto it = from; it != to; ++it) {
    result.push_back(it->second);
  }
  return result;
}

platform::Expected<Remark> endProcess(const RunningProgram& program) {
  if (const auto allowed = checkMayEnd(program); !allowed) {
    return platform::failure(allowed.error());
  }
  const platform::Descriptor process(pidfd_open(program.pid, 0));
  if (!process) {
    return errno == ESRCH ? platform::Expected<Remark>("had ended")
                          : platform::failure(platform::errnoText(errno));
  }
  // The descriptor names one process for good. Now check that the process is still the one meant.
  const std::optional<RunningProgram> now = readProgram(program.pid);
  if (!now || now->startTicks == 0 || now->startTicks != program.startTicks ||
      now->device != program.device || now->inode != program.inode) {
    return platform::failure("the process runs another program by now");
  }
  if (pidfd_send_signal(process.get(), SIGKILL, nullptr, 0) != 0 && errno != ESRCH) {
    return platform::failure(platform::errnoText(errno));
  }
  pollfd ended{process.get(), POLLIN, 0};
  if (poll(&ended, 1, kEndWaitMs) <= 0) {
    return platform::failure("the process did not end");
  }
  return Remark();
}

}  // namespace agent
