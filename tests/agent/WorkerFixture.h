#pragma once

#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "EngineFixture.h"
#include "platform/Descriptor.h"
#include "platform/ProcessStat.h"
#include "support/HeldFile.h"
#include "support/Process.h"
#include "support/Wait.h"
#include "worker/WorkerPool.h"

namespace agent::testing {

/// The number of this process's descriptors.
inline std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}

/// A spawner with the shipped signatures, and the verdicts of files by name. The spawner is made at its first
/// use: a test can change the configuration before.
class WorkerFixture : public ::testing::Test {
 protected:
  WorkerFixture() {
    config_.shippedSignatures = kShippedSignatures;
    config_.systemSignatures = dir_.at("system");
    config_.tempFolder = dir_.path();
  }

  Spawner::Config& config() { return config_; }
  Spawner& spawner() {
    if (!spawner_) {
      spawner_ = std::make_unique<Spawner>(config_);
    }
    return *spawner_;
  }
  void endSpawner() { spawner_.reset(); }

  /// Writes a system database with one signature; returns its path.
  std::string writeSystem() const {
    return dir_.write("system/x.ndb", "Sys.Trojan.Sample:0:*:6f6e6c79207468652073797374656d2773206b6e6f77\n");
  }
  static platform::Descriptor openFile(const std::string& path) {
    return platform::Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  WorkerPool::Done keep(const std::string& name) {
    return [this, name](Verdict verdict) {
      const std::lock_guard lock(mutex_);
      verdicts_[name] = std::move(verdict);
    };
  }
  void begin(WorkerPool& pool, const std::string& name, const std::string& content,
             const ScanOptions& options = {}) {
    const std::string path = dir_.write(name, content);
    pool.scan(openFile(path), path, options, keep(name));
  }
  bool known(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return verdicts_.contains(name);
  }
  Verdict verdict(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return verdicts_.at(name);
  }

  /// The test's descendant processes of that name.
  static std::vector<pid_t> processesNamed(const std::string& name) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const auto pid = static_cast<pid_t>(std::strtol(entry.path().filename().c_str(), nullptr, 10));
      const auto stat = platform::processStat(pid);
      if (stat && stat->name == name && !isZombie(pid) && isDescendant(pid)) {
        found.push_back(pid);
      }
    }
    return found;
  }
  /// A worker waits at each file whose name begins so until open(). Call before the first use of the spawner.
  void holdFilesNamed(const std::string& beginning) {
    config_.beforeFile = [this, before = config_.beforeFile, gate = dir_.at("gate"),
                          beginning](const std::string& path) {
      if (before) {
        before(path);
      }
      const std::string name = path.substr(path.rfind('/') + 1);
      note(name);
      while (name.starts_with(beginning) && access(gate.c_str(), F_OK) != 0) {
        usleep(1000);
      }
    };
  }
  /// Lets the waiting workers go on. Needs no descriptor.
  void open() const { mkdir(dir_.at("gate").c_str(), 0700); }
  /// In a worker: writes one line, "process name", for a file that the worker begins.
  void note(const std::string& name) const {
    const platform::Descriptor log(
        ::open(dir_.at("begun").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    const std::string line = std::to_string(getpid()) + " " + name + "\n";
    [[maybe_unused]] const ssize_t written = write(log.get(), line.data(), line.size());
  }
  struct Begun {
    std::string process, name;
  };
  /// The workers' lines, in order.
  std::vector<Begun> begun() const {
    std::vector<Begun> all;
    std::istringstream lines(testsupport::readFile(dir_.at("begun")));
    for (Begun one; lines >> one.process >> one.name;) {
      all.push_back(one);
    }
    return all;
  }
  std::vector<std::string> namesBegun() const {
    std::vector<std::string> names;
    for (const Begun& one : begun()) {
      names.push_back(one.name);
    }
    return names;
  }
  /// The number of files that each process has begun.
  std::map<std::string, int> filesOfProcesses() const {
    std::map<std::string, int> count;
    for (const Begun& one : begun()) {
      ++count[one.process];
    }
    return count;
  }

  static int workerCount() { return static_cast<int>(processesNamed("tav-worker").size()); }
  const testsupport::TempDir& dir() const { return dir_; }

 private:
  static bool isZombie(pid_t pid) {
    const std::string stat = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
    return stat.find(") Z ") != std::string::npos;
  }
  static bool isDescendant(pid_t pid) {
    for (int steps = 0; pid > 1 && pid != getpid() && steps < 10; ++steps) {
      const auto stat = platform::processStat(pid);
      pid = stat ? stat->parent : 0;
    }
    return pid == getpid();
  }

  testsupport::TempDir dir_;
  Spawner::Config config_;
  std::mutex mutex_;
  std::map<std::string, Verdict> verdicts_;
  std::unique_ptr<Spawner> spawner_;
};

/// Workers of the program, confined as those of an agent of root.
class ConfinedWorkerFixture : public WorkerFixture {
 protected:
  static constexpr std::uint32_t kUser = 60706;

  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can give the processes a user of their own";
    }
    config().program = TAV_BIN_DIR "/tavscand";
    config().user = {kUser, kUser};
  }
  Verdict scan(WorkerPool& pool, const std::string& name, const std::string& content) {
    begin(pool, name, content);
    pool.drain();
    return verdict(name);
  }
};

/// While the object lives, this process can open no more descriptors than it has.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const platform::Descriptor firstFree(dup(STDERR_FILENO));
    const rlimit none{static_cast<rlim_t>(firstFree.get()), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace agent::testing
