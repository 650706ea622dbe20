#pragma once

#include <functional>
#include <memory>
#include <string>

#include "engine/ScanTypes.h"

namespace agent {

/// The processes that do the scanning. A spawner process, started by startSpawner() before the agent's first
/// thread, loads the signatures once and forks the workers; a worker that dies costs the file it had an
/// error and is forked again. The seam for a sandbox is the worker's start.
class Spawner {
 public:
  struct Config {
    std::string shippedSignatures;  ///< folder of our own signatures; must be there
    std::string systemSignatures;   ///< folder of the system's database; may be missing or empty
  };
  /// Call while the process has one thread. Throws std::system_error when it cannot fork; signatures that do
  /// not load are reported by signatureState().
  explicit Spawner(Config config);
  ~Spawner();  ///< ends the spawner and its workers
  Spawner(const Spawner&) = delete;
  Spawner& operator=(const Spawner&) = delete;

  struct SignatureState {
    bool loaded = false;
    std::string version;  ///< changes whenever any signature file does: part of a cache key
    std::string detail;   ///< why not loaded, or what was
    unsigned long count = 0;
  };
  SignatureState signatureState() const;
  /// Loads the signatures again in a fresh spawner; workers under way finish their file with the old ones.
  bool reload(std::string* why);

  class Impl;
  Impl& impl() const { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

/// A set of workers for one task. Made and used by the task's thread; callbacks come on the pool's thread.
class WorkerPool {
 public:
  /// count 0: as many as the machine has cores.
  WorkerPool(Spawner& spawner, unsigned count);
  ~WorkerPool();  ///< cancels what is queued, waits for what is running
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  using Done = std::function<void(Verdict)>;
  /// Hands an open descriptor over (the pool keeps no copy once scanned and closes it). Blocks while
  /// 4 × count files are queued, so that descriptors stay few. name: for reasons and file-type hints only.
  void scan(int fd, std::string name, const ScanOptions& options, Done done);
  /// Waits until all callbacks have run.
  void drain();
  /// What is queued and not begun comes back as kSkipped "cancelled"; what runs is let finish, unless
  /// `kill`, which ends the workers.
  void cancel(bool kill);
  unsigned size() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
