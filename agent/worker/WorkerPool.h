#pragma once

#include <functional>
#include <memory>
#include <string>

#include "engine/ScanTypes.h"
#include "platform/Descriptor.h"
#include "worker/Spawner.h"

namespace agent {

/// The worker processes of one task. A worker that dies makes its current file an error (Verdict::workerDied)
/// and is replaced. A file whose worker ended together with the template is queued again.
/// All calls: any thread except the pool's. Callbacks run on the pool's thread, one at a time, and must not
/// call the pool.
class WorkerPool {
 public:
  /// count 0: one worker for each core of the machine.
  WorkerPool(Spawner& spawner, unsigned count);
  ~WorkerPool();  ///< cancels queued files, waits for running ones
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  using Done = std::function<void(Verdict)>;
  /// Takes an open file, and closes it after the scan. Blocks while 4 × count files are queued, to keep few
  /// descriptors open; a held pool takes the file all the same. name: for reasons and file-type hints only.
  /// Files queued while signatures load wait for the load. Each call has exactly one callback; the pool drops
  /// an exception from the callback.
  void scan(platform::Descriptor file, std::string name, const ScanOptions& options, Done done);
  /// Waits until all callbacks have run. False as soon as the pool is held and files are left.
  bool drain();
  /// No file begins until release(). A file that still runs a quarter of a second later is interrupted,
  /// without a callback: its worker is ended, and the file is queued again, before all others. A file that
  /// was interrupted twice keeps its worker, which is stopped and goes on at the release: every file ends.
  void hold();
  void release();
  /// Waits until a held pool runs no file, or is held no more.
  void waitHeld();
  /// Queued files, and files that come later, end as kSkipped "cancelled". Running files are finished. With
  /// `kill` the workers are ended instead, and running files are "cancelled", too. Ends a hold for good.
  void cancel(bool kill);
  unsigned size() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
