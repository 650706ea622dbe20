#include "worker/SpawnerProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <set>
#include <string>

#include "platform/Posix.h"
#include "worker/Messages.h"
#include "worker/TempFolders.h"
#include "worker/TemplateProcess.h"
#include "worker/WorkerProcess.h"

namespace agent {
namespace {

platform::Expected<WorkerFolders> parentsOf(const TempFolders& folders) {
  return folders.disk().map([&](const std::string& disk) { return WorkerFolders{folders.quick(), disk}; });
}

// Whether /proc let this process be the root of a user namespace that stands for the agent's user.
bool becomeRootOfNamespace(uid_t user, gid_t group) {
  const auto put = [](const char* file, const std::string& text) {
    const platform::Descriptor opened(open(file, O_WRONLY | O_CLOEXEC));
    return opened && platform::writeAll(opened.get(), text) == 0;
  };
  prctl(PR_SET_DUMPABLE, 1);  // else these files belong to root; the program takes it back
  return put("/proc/self/setgroups", "deny") &&
         put("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
         put("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

pid_t forkWith(unsigned long namespaces) {
  return static_cast<pid_t>(syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

// Some systems let users make such a namespace, and refuse all rights in it.
bool mayBecomeRootOfNamespace(uid_t user, gid_t group) {
  const pid_t pid = forkWith(CLONE_NEWUSER);
  if (pid == 0) {
    _exit(becomeRootOfNamespace(user, group) ? 0 : 1);
  }
  int status = -1;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// In the child. An error of the program is told as the state of its signatures.
[[noreturn]] void executeTemplate(Channel toAgent, platform::Descriptor spawnerEnd) {
  const platform::Descriptor kept = keepOnly(toAgent.takeFd(), std::move(spawnerEnd));
  fcntl(kept.get(), F_SETFD, 0);
  fcntl(kSpawnerEndFd, F_SETFD, 0);
  std::string name = "tav-template";
  std::array<char*, 2> arguments{name.data(), nullptr};
  std::array<char*, 1> noEnvironment{nullptr};
  execve("/proc/self/exe", arguments.data(), noEnvironment.data());  // of this build, whatever lies there now
  StateReport report;
  report.state.detail = "the worker template cannot be started: " + platform::errnoText(errno);
  Channel(platform::Descriptor(dup(kept.get()))).send(encode(report));
  _exit(1);
}

// The child has its own process namespace, if the kernel lets it: only a fork can begin one.
pid_t startTemplate(Channel toAgent, int spawnerEnd) {
  const pid_t self = getpid();
  const uid_t user = geteuid();
  const gid_t group = getegid();
  const bool ownUsers = user != 0 && mayBecomeRootOfNamespace(user, group);
  pid_t pid = user == 0 || ownUsers ? forkWith(CLONE_NEWPID | (ownUsers ? CLONE_NEWUSER : 0UL)) : -1;
  const bool alone = pid >= 0;
  if (!alone) {
    pid = fork();
  }
  if (pid != 0) {
    return pid;
  }
  if (!becomeChild("tav-template", alone ? 0 : self) ||
      (alone && ownUsers && !becomeRootOfNamespace(user, group))) {
    _exit(1);
  }
  executeTemplate(std::move(toAgent), platform::Descriptor(spawnerEnd));
}

pid_t forkTemplate(const Spawner::Config& config, const TempFolders& folders, Channel& spawnerChannel,
                   Channel toAgent) {
  const pid_t self = getpid();
  const pid_t pid = fork();
  if (pid != 0) {
    return pid;
  }
  spawnerChannel.close();
  if (!becomeChild("tav-template", self)) {
    _exit(1);
  }
  runTemplate({std::move(toAgent),
               {config.shippedSignatures, config.systemSignatures, config.limits, config.signatureCopies},
               parentsOf(folders),
               config.beforeFile});
}

using TemplateStarter = std::function<pid_t(Channel& spawnerChannel, Channel toAgent)>;

[[noreturn]] void serve(Channel agent, const WorkerFolders& folders, const TemplateStarter& start) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // collects the workers of a crashed template
  std::set<pid_t> templates;
  const auto collect = [&](int options) {
    for (pid_t pid = 0; (pid = waitpid(-1, nullptr, options)) > 0 || (pid < 0 && errno == EINTR);) {
      if (templates.erase(pid) > 0) {
        WorkerFolders::removeOf(folders, pid);
      }
    }
  };
  Channel::Packet packet;
  while (agent.receive(packet, true) == Channel::Received::kPacket) {
    collect(WNOHANG);
    if (!decode<ForkRequest>(packet.bytes) || !packet.fd) {
      continue;
    }
    const pid_t pid = start(agent, Channel(std::move(packet.fd)));
    if (pid > 0) {
      templates.insert(pid);
    }
  }
  for (const pid_t pid : templates) {
    kill(pid, SIGKILL);
  }
  collect(0);
  _exit(0);
}

}  // namespace

void runSpawnerProgram(Channel agent) {
  becomeProcess("tav-spawner");
  agent = Channel(keepOnly(agent.takeFd()));
  Channel::Packet packet;
  const auto start = agent.receive(packet, true) == Channel::Received::kPacket
                         ? decode<SpawnerStart>(packet.bytes)
                         : std::nullopt;
  if (!start) {
    _exit(1);
  }
  std::array<int, 2> life{};  // read end, write end: the kernel closes the latter with this process
  if (pipe2(life.data(), O_CLOEXEC) != 0) {
    _exit(1);
  }
  serve(std::move(agent), WorkerFolders{"", start->tempFolder},
        [&](Channel&, Channel toAgent) { return startTemplate(std::move(toAgent), life[0]); });
}

void runForkedSpawner(const Spawner::Config& config, const TempFolders& folders, Channel agent) {
  becomeProcess("tav-spawner");
  serve(Channel(keepOnly(agent.takeFd())), WorkerFolders{folders.quick(), folders.disk().value_or("")},
        [&](Channel& spawnerChannel, Channel toAgent) {
          return forkTemplate(config, folders, spawnerChannel, std::move(toAgent));
        });
}

}  // namespace agent
