#include "worker/WorkerProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <new>

#include "engine/FileBudget.h"
#include "platform/Inheritance.h"
#include "worker/CallFilter.h"
#include "worker/Messages.h"
#include "worker/Pidfd.h"

namespace agent {
namespace {

// When memory runs out, the kernel ends a worker before the agent.
void preferForMemoryKiller() {
  const platform::Descriptor file(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (file) {
    [[maybe_unused]] const ssize_t written = write(file.get(), "500", 3);
  }
}

// Of a scan that does not end by itself: the worker says why, and ends.
void onProcessorTime(int) {
  const char packet = MessageFields<OutOfProcessorTime>::kTag;
  send(kChannelFd, &packet, sizeof packet, MSG_NOSIGNAL | MSG_DONTWAIT);
  _exit(1);
}

void limitProcessor(std::chrono::milliseconds time) {
  rusage used{};
  rlimit limit{};
  if (getrusage(RUSAGE_SELF, &used) == 0 && getrlimit(RLIMIT_CPU, &limit) == 0) {
    const auto more = std::chrono::ceil<std::chrono::seconds>(time).count();
    limit.rlim_cur =
        std::min(static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec + more), limit.rlim_max);
    setrlimit(RLIMIT_CPU, &limit);
  }
}

void limitFile(const WorkerStart& start, const EngineLimits& limits, int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return;  // the engine says so
  }
  limitProcessor(budgetOf(limits, status).processorEnd);
  if (start.confinement != nullptr) {
    start.confinement->limitMemory(static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0)));
  }
}

ScanAnswer answer(Engine& engine, const ScanRequest& request, int fd) {
  try {
    return {request.id, engine.scan(fd, request.name, request.options)};
  } catch (const std::bad_alloc&) {
    return {request.id, notScanned(Outcome::kError, "the scan needs more memory than a scan may use")};
  } catch (const std::exception& error) {
    return {request.id, notScanned(Outcome::kError, std::string("the engine failed: ") + error.what())};
  }
}

}  // namespace

void becomeProcess(const char* name) {
  prctl(PR_SET_NAME, name);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGUSR1, SIGUSR2}) {
    std::signal(signal, SIG_IGN);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool becomeChild(const char* name, int parentPid) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  becomeProcess(name);
  return getppid() == parentPid;
}

platform::Descriptor keepOnly(platform::Descriptor fd, platform::Descriptor second) {
  // A reader of the agent's output pipe must not wait for this process.
  platform::leaveStandardStreams();
  const auto renumber = [](platform::Descriptor from, int number) {
    if (from && from.get() != number) {
      dup3(from.get(), number, O_CLOEXEC);
    }
    from.release();
  };
  constexpr int kKept = 3;
  constexpr int kSecond = 4;
  const bool both = static_cast<bool>(second);
  renumber(std::move(fd), kKept);
  renumber(std::move(second), kSecond);
  platform::closeAllBut({kKept, both ? kSecond : kKept});
  return platform::Descriptor(kKept);
}

void confineWorker(const WorkerStart& start) {
  preferForMemoryKiller();
  umask(0077);
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);  // a core dump would hold the content of files
  prctl(PR_SET_DUMPABLE, 0);
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  std::signal(SIGXCPU, onProcessorTime);
  if (chdir(start.folders.disk.c_str()) != 0 ||
      (start.confinement != nullptr && !start.confinement->confineWorker())) {
    _exit(1);
  }
}

void runWorker(Engine& engine, WorkerStart start) {
  start.agent = Channel(keepOnly(start.agent.takeFd()));
  platform::Descriptor self(pidfd_open(getpid(), 0));
  confineWorker(start);
  engine.setTempFolders(start.folders.quick, ".");
  if (!start.agent.send(encode(WorkerHello{getpid()}), self.get())) {
    _exit(1);
  }
  self.reset();
  Channel::Packet packet;
  while (start.agent.receive(packet, true) == Channel::Received::kPacket) {
    const auto request = decode<ScanRequest>(packet.bytes);
    if (!request || !packet.fd) {
      _exit(1);
    }
    limitFile(start, engine.limits(), packet.fd.get());
    if (start.beforeFile) {
      start.beforeFile(request->name);
    }
    const ScanAnswer result = answer(engine, *request, packet.fd.get());
    packet.fd.reset();
    if (!start.agent.send(encode(result))) {
      break;
    }
  }
  _exit(0);
}

}  // namespace agent
