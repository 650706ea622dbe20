#pragma once

#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "EngineFixture.h"
#include "support/Wait.h"
#include "worker/WorkerPool.h"

namespace agent::testing {

/// A spawner with the shipped signatures, made at its first use so that a test can change its configuration,
/// and the verdicts of files by name.
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

  static int openFile(const std::string& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC); }
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

  /// Processes of that name below this test's own.
  static std::vector<pid_t> processesNamed(const std::string& name) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const auto pid = static_cast<pid_t>(std::strtol(entry.path().filename().c_str(), nullptr, 10));
      const Status status = statusOf(pid);
      if (pid > 0 && status.name == name && status.state != 'Z' && isOurs(pid)) {
        found.push_back(pid);
      }
    }
    return found;
  }
  static int workerCount() { return static_cast<int>(processesNamed("tav-worker").size()); }
  static std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  }
  const testsupport::TempDir& dir() const { return dir_; }

 private:
  struct Status {
    std::string name;
    char state = ' ';
    pid_t parent = 0;
  };
  static Status statusOf(pid_t pid) {
    const std::string line = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto open = line.find('(');
    const auto close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 4 > line.size()) {
      return {};
    }
    return {line.substr(open + 1, close - open - 1), line[close + 2],
            static_cast<pid_t>(std::strtol(line.c_str() + close + 4, nullptr, 10))};
  }
  static bool isOurs(pid_t pid) {
    for (int steps = 0; pid > 1 && steps < 10; ++steps) {
      if (pid == getpid()) {
        return true;
      }
      pid = statusOf(pid).parent;
    }
    return false;
  }

  testsupport::TempDir dir_;
  Spawner::Config config_;
  std::mutex mutex_;
  std::map<std::string, Verdict> verdicts_;
  std::unique_ptr<Spawner> spawner_;
};

}  // namespace agent::testing
