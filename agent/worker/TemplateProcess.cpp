#include "worker/TemplateProcess.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <utility>

#include "worker/Messages.h"
#include "worker/WorkerProcess.h"

namespace agent {
namespace {

// The worker template: holds the signatures. A worker shares the memory of the template until the worker
// writes to this memory.
class Template {
 public:
  explicit Template(TemplateParts parts) : parts_(std::move(parts)), agent_(std::move(parts_.agent)) {}

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
    auto engine =
        parts_.folders.and_then([this](const WorkerFolders&) { return Engine::load(parts_.engine); });
    StateReport report;
    report.confinement = parts_.confined;
    if (engine) {
      engine_ = std::move(*engine);
      report.state = engine_->signatures();
    } else {
      report.state.detail = engine.error();
    }
    if (parts_.confinement != nullptr) {
      parts_.confinement->measureMemory();
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
    const auto folders = WorkerFolders::make(*parts_.folders, ++number_);
    if (!folders) {
      return;
    }
    const pid_t self = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      if (!becomeChild("tav-worker", self)) {
        _exit(1);
      }
      runWorker(*engine_, WorkerStart{std::move(toAgent), *folders, parts_.beforeFile, parts_.confinement});
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

  TemplateParts parts_;
  Channel agent_;
  platform::Descriptor childEnds_;
  std::unique_ptr<Engine> engine_;
  std::map<pid_t, WorkerFolders> workers_;
  unsigned number_ = 0;
};

}  // namespace

void runTemplate(TemplateParts parts) {
  Template(std::move(parts)).run();
}

}  // namespace agent
