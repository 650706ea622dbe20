#include "worker/SpawnerProcess.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <set>

#include "worker/Messages.h"
#include "worker/TempFolders.h"
#include "worker/WorkerProcess.h"

namespace agent {
namespace {

// The worker template: holds the signatures. A worker shares the memory of the template until the worker
// writes to this memory.
class Template {
 public:
  Template(const Spawner::Config& config, const TempFolders& folders, Channel agent)
      : config_(config), folders_(folders), agent_(std::move(agent)) {}

  [[noreturn]] void run() {
    if (!load()) {
      _exit(0);
    }
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
    childEnds_ = platform::Descriptor(signalfd(-1, &childEnds, SFD_CLOEXEC | SFD_NONBLOCK));
    while (agent_ || !workers_.empty()) {
      waitAndServe();
    }
    _exit(0);
  }

 private:
  bool load() {
    auto engine = folders_.disk().and_then([this](const std::string&) {
      return Engine::load({config_.shippedSignatures, config_.systemSignatures, config_.limits});
    });
    StateReport report;
    if (engine) {
      engine_ = std::move(*engine);
      report.state = engine_->signatures();
    } else {
      report.state.detail = engine.error();
    }
    return agent_.send(encode(report)) && engine_ != nullptr;
  }

  void waitAndServe() {
    std::array<pollfd, 2> waiting{{{childEnds_.get(), POLLIN, 0}, {agent_.fd(), POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
      _exit(1);
    }
    if ((waiting[0].revents & POLLIN) != 0) {
      reap();
    }
    if (waiting[1].revents != 0) {  // never for a closed channel
      serve();
    }
  }

  void serve() {
    Channel::Packet packet;
    switch (agent_.receive(packet, false)) {
      case Channel::Received::kPacket:
        if (decode<ForkRequest>(packet.bytes) && packet.fd) {
          forkWorker(Channel(std::move(packet.fd)));
        }
        break;
      case Channel::Received::kEnded:
        agent_.close();  // another template took over; the workers finish their files
        break;
      case Channel::Received::kNothing:
        break;
    }
  }

  // When no worker can be forked, the agent sees its channel end before a hello.
  void forkWorker(Channel toAgent) {
    const auto folders = WorkerFolders::make(folders_, ++number_);
    if (!folders) {
      return;
    }
    const pid_t self = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      if (!becomeChild("tav-worker", self)) {
        _exit(1);
      }
      runWorker(*engine_, WorkerStart{std::move(toAgent), *folders, config_.beforeFile});
    }
    if (pid < 0) {
      folders->remove();
    } else {
      workers_.emplace(pid, *folders);
    }
  }

  void reap() {
    signalfd_siginfo info{};
    while (read(childEnds_.get(), &info, sizeof info) == sizeof info) {
    }
    for (pid_t pid = 0; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;) {
      if (const auto worker = workers_.find(pid); worker != workers_.end()) {
        worker->second.remove();
        workers_.erase(worker);
      }
    }
  }

  const Spawner::Config& config_;
  const TempFolders& folders_;
  Channel agent_;
  platform::Descriptor childEnds_;
  std::unique_ptr<Engine> engine_;
  std::map<pid_t, WorkerFolders> workers_;
  unsigned number_ = 0;
};

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
  Template(config, folders, std::move(toAgent)).run();
}

}  // namespace

void runSpawner(const Spawner::Config& config, const TempFolders& folders, Channel agent, int agentPid) {
  if (!becomeChild("tav-spawner", agentPid)) {
    _exit(1);
  }
  agent = Channel(keepOnly(agent.takeFd()));
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
    const pid_t pid = forkTemplate(config, folders, agent, Channel(std::move(packet.fd)));
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

}  // namespace agent
