#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/EngineLimits.h"
#include "engine/ScanTypes.h"
#include "engine/SignatureState.h"

namespace agent {

/// The processes that do the scanning. A spawner process, forked by the constructor before the agent's first
/// thread, forks a template, which loads the signatures once and forks the workers; a worker that dies costs
/// the file it had an error and is forked again, and so is a template. All end with the agent, however it
/// ends. The seam for a sandbox is confineWorker() in worker/WorkerProcess.h.
class Spawner {
 public:
  struct Config {
    std::string shippedSignatures;  ///< folder of our own signatures; must be there
    std::string systemSignatures;   ///< folder of the system's database; may be missing or empty
    EngineLimits limits{};
    std::string tempFolder{};  ///< where large unpacked content goes; empty: $TMPDIR, else /tmp
    std::chrono::milliseconds fileTimeout{360000};  ///< wall clock; a worker that takes longer is killed
    /// Runs in the worker before each file, with its name. For tests that need a worker to die or hang.
    std::function<void(const std::string&)> beforeFile{};
  };
  /// Call while the process has one thread, the one that lives longest: its end ends the spawner. Throws
  /// std::system_error when it cannot fork. Returns at once; signatures load meanwhile.
  explicit Spawner(Config config);
  ~Spawner();  ///< ends the spawner and its workers; no pool may be left
  Spawner(const Spawner&) = delete;
  Spawner& operator=(const Spawner&) = delete;

  using SignatureState = agent::SignatureState;
  /// As of now, without waiting. Any thread.
  SignatureState signatureState() const;
  /// Waits for the load under way, up to the limit. Any thread.
  SignatureState waitLoaded(std::chrono::milliseconds limit) const;
  /// Loads the signatures again, in a fresh template; workers under way finish their file with the old ones.
  /// Blocks until that is done. False, and all as it was, when they do not load (*why says why, when given).
  bool reload(std::string* why);
  /// For the end of the agent: a reload under way fails at once, and so does every later one. Any thread.
  void abandonReload();

  /// Where workers keep what they unpack, for as long as the spawner lives: no scan is to go there.
  std::vector<std::string> temporaryFolders() const;

  class Impl;
  Impl& impl() const { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

/// A set of workers for one task. scan, drain and cancel: any thread but the callbacks'; callbacks come on
/// the pool's own thread, one at a time, and must not call the pool.
class WorkerPool {
 public:
  /// count 0: as many as the machine has cores.
  WorkerPool(Spawner& spawner, unsigned count);
  ~WorkerPool();  ///< cancels what is queued, waits for what is running
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  using Done = std::function<void(Verdict)>;
  /// Hands an open descriptor over: it is closed once scanned. Blocks while 4 × count files are queued, so
  /// that descriptors stay few. name: for reasons and file-type hints only. Files queued while signatures
  /// load wait for them. Each call has exactly one callback; an exception that leaves it is dropped.
  void scan(int fd, std::string name, const ScanOptions& options, Done done);
  /// Waits until all callbacks have run.
  void drain();
  /// What is queued and not begun comes back as kSkipped "cancelled", and so does all that follows; what runs
  /// is let finish, unless `kill`, which ends the workers: then that is "cancelled" too.
  void cancel(bool kill);
  unsigned size() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
